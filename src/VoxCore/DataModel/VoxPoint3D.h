/// \file
/// A point with coordinates of any type: indices, positions, and the colours of colour images.
#pragma once

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxPointArithmetic.h"

/// Plain value; arithmetic is element by element, see VRK::detail::PointArithmetic.
template <typename T>
class VRKCORE_EXPORT VoxPoint3D : public VRK::detail::PointArithmetic<VoxPoint3D<T>, T> {
public:
    static constexpr int kDimensions = 3;

    T x{};
    T y{};
    T z{};

    constexpr VoxPoint3D() = default;
    constexpr VoxPoint3D(T px, T py, T pz) : x(px), y(py), z(pz) {}

    /// Coordinate 0, 1 or 2; every other number gives z.
    constexpr T& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    constexpr const T& operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }

    /// Smaller (larger) in all three coordinates. Two points can be neither, so this sorts nothing.
    constexpr bool operator<(const VoxPoint3D& p) const { return x < p.x && y < p.y && z < p.z; }
    constexpr bool operator>(const VoxPoint3D& p) const { return p < *this; }
};
