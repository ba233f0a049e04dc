/// \file
/// A position or direction in space with coordinates of type double.
#pragma once

#include <string>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxPointArithmetic.h"

/// Plain value; arithmetic is element by element and comparison exact, see VRK::detail::PointArithmetic
/// and VRK::detail::RealPointArithmetic.
class VRKCORE_EXPORT VoxPoint3DDouble : public VRK::detail::RealPointArithmetic<VoxPoint3DDouble, double> {
public:
    static constexpr int kDimensions = 3;

    double x = 0;
    double y = 0;
    double z = 0;

    constexpr VoxPoint3DDouble() = default;
    constexpr VoxPoint3DDouble(double px, double py, double pz) : x(px), y(py), z(pz) {}

    /// Coordinate 0, 1 or 2; every other number gives z.
    constexpr double& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    constexpr const double& operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }

    constexpr VoxPoint3DDouble operator-() const { return {-x, -y, -z}; }

    /// The three numbers with single blanks between them, six significant digits.
    std::string toString() const;
};
