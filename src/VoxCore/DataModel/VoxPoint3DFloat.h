/// \file
/// A position or direction in space with coordinates of type float.
#pragma once

#include <string>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxPointArithmetic.h"

/// Plain value; arithmetic is element by element and comparison exact, see VRK::detail::PointArithmetic
/// and VRK::detail::RealPointArithmetic.
class VRKCORE_EXPORT VoxPoint3DFloat : public VRK::detail::RealPointArithmetic<VoxPoint3DFloat, float> {
public:
    static constexpr int kDimensions = 3;

    float x = 0;
    float y = 0;
    float z = 0;

    constexpr VoxPoint3DFloat() = default;
    constexpr VoxPoint3DFloat(float px, float py, float pz) : x(px), y(py), z(pz) {}

    /// Coordinate 0, 1 or 2; every other number gives z.
    constexpr float& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    constexpr const float& operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }

    constexpr VoxPoint3DFloat operator-() const { return {-x, -y, -z}; }

    /// The three numbers with single blanks between them, six significant digits.
    std::string toString() const;
};
