/// \file
/// A position in an image, in pixels.
#pragma once

#include "VoxCore/DataModel/VoxPointArithmetic.h"

/// Plain value; arithmetic is element by element and comparison exact, see VRK::detail::PointArithmetic
/// and VRK::detail::RealPointArithmetic.
class VoxPoint2DFloat : public VRK::detail::RealPointArithmetic<VoxPoint2DFloat, float> {
public:
    static constexpr int kDimensions = 2;

    float x = 0;
    float y = 0;

    constexpr VoxPoint2DFloat() = default;
    constexpr VoxPoint2DFloat(float px, float py) : x(px), y(py) {}

    /// Coordinate 0 or 1; every other number gives y.
    constexpr float& operator[](int i) { return i == 0 ? x : y; }
    constexpr const float& operator[](int i) const { return i == 0 ? x : y; }
};
