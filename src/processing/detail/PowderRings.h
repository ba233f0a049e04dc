/// \file
/// Rings of ice or of another powder in all patterns of a series.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// An ellipse about the direct beam for every distance from it.
struct RingShape {
    cv::Point2d centre;
    double cosine = 0.0;  ///< of the ellipse: half the relative difference of its axes along x and y
    double sine = 0.0;    ///< the same along the diagonals

    /// Mean distance of the ring that goes through a pixel.
    double radiusOf(double x, double y) const;
};

/// Rings about the direct beam that are brighter than what lies inside and outside of them. The dark between
/// two of them has edges as sharp as those of a shadow. They are as elliptical as the lenses make them: of
/// the shapes around a circle the one is taken about which the rings are sharpest.
class PowderRings {
public:
    explicit PowderRings(const SeriesMean& mean);

    bool empty() const { return m_levels.empty(); }
    /// Cuts the rings down to what lies beside them.
    void removeFrom(SeriesMean& mean) const;

private:
    RingShape m_shape;
    std::vector<float> m_levels;  ///< by the distance in pixels, infinite beside rings; empty: none
};

}  // namespace VRK::detail
