/// \file
/// What all patterns of a series have in common.
#pragma once

#include <vector>

class VoxMRCData;

namespace VRK::detail {

/// The mean of the patterns without the highest of every four values of a pixel: what stands still shows,
/// reflections fade. Up to 32 patterns spread over the series take part; blank ones, with less than a tenth
/// of the usual counts, do not.
struct SeriesMean {
    explicit SeriesMean(const VoxMRCData& series);

    int width;
    int height;
    std::vector<float> values;  ///< x fastest, negative counts as 0
    /// Counts per unit of the mean: value * counts has about the variance of a counting experiment. Measured
    /// on the differences of neighbouring pixels, so that it holds for a detector of any gain.
    double counts = 0;
};

}  // namespace VRK::detail
