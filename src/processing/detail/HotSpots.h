/// \file
/// Single pixels that do not show the pattern: hot spots, zingers, dead and stuck pixels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "processing/ReplacedPixel.h"
#include "processing/detail/Frame.h"

namespace VRK::detail {

/// Finds and replaces isolated outliers.
///
/// A pixel is suspicious when it leaves the median of its 3 x 3 neighbourhood by more than seven times the
/// noise that pixels of this level have in this pattern (the median absolute deviation in octaves of the
/// level, and not less than counting noise). A suspicious bright pixel is a hot spot when its neighbours do
/// not rise with it: the spread function of the detector spills a part of every real reflection, however
/// sharp, into the neighbours. A dark one is dead when none of its neighbours is as dark. A pixel that shows
/// the same value in all patterns, while its neighbours' sums say otherwise, is stuck. All of them become the
/// median of their neighbours. Groups of two and more pixels stay.
class HotSpotFilter {
public:
    HotSpotFilter(int width, int height);

    /// First pass over the series: looks for stuck pixels in the rows from \p begin to before \p end of all
    /// patterns, in their order.
    void observe(std::span<const short* const> patterns, int begin, int end);
    /// When all rows of so many patterns were observed.
    void finishObservation(std::size_t patterns);

    /// One for the second pass of the same series, with scratch memory of its own.
    HotSpotFilter another() const;
    /// Second pass. Lists the pixels that are replaced; \p out may be \p in.
    void apply(const Frame& in, Frame out, std::vector<ReplacedPixel>& replaced);

private:
    void measureNoise(const Frame& in);
    int medianDeviation(const Frame& in, std::size_t level);

    Frame m_lowest;
    Frame m_highest;
    cv::Mat_<float> m_sum;
    Frame m_median;
    std::vector<cv::Point> m_stuck;
    std::vector<std::vector<std::uint32_t>> m_deviations;  ///< by level, how often each of them occurs
    std::vector<int> m_limits;
};

}  // namespace VRK::detail
