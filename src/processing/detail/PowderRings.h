/// \file
/// Rings of ice or of another powder in all patterns of a series.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// Rings about the direct beam that are brighter than what lies inside and outside of them. The dark between
/// two of them has edges as sharp as those of a shadow.
class PowderRings {
public:
    explicit PowderRings(const SeriesMean& mean);

    bool empty() const { return m_levels.empty(); }
    /// Cuts the rings down to what lies beside them.
    void removeFrom(SeriesMean& mean) const;

private:
    cv::Point2d m_centre;
    std::vector<float> m_levels;  ///< by the distance in pixels, infinite beside rings; empty: none
};

}  // namespace VRK::detail
