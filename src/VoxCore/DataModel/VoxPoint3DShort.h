/// \file
/// A voxel position.
#pragma once

#include <string>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxPointArithmetic.h"

/// Plain value; arithmetic is element by element and wraps as short does, see
/// VRK::detail::PointArithmetic.
class VRKCORE_EXPORT VoxPoint3DShort : public VRK::detail::PointArithmetic<VoxPoint3DShort, short> {
public:
    static constexpr int kDimensions = 3;

    short x = 0;
    short y = 0;
    short z = 0;

    constexpr VoxPoint3DShort() = default;
    constexpr VoxPoint3DShort(short px, short py, short pz) : x(px), y(py), z(pz) {}

    /// Coordinate 0, 1 or 2; every other number gives z.
    constexpr short& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
    constexpr const short& operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }

    constexpr VoxPoint3DShort operator+() const { return *this; }
    constexpr VoxPoint3DShort operator-() const { return VoxPoint3DShort() - *this; }

    /// Smaller (larger) in all three coordinates. Two points can be neither, so this sorts nothing.
    constexpr bool operator<(const VoxPoint3DShort& p) const { return x < p.x && y < p.y && z < p.z; }
    constexpr bool operator>(const VoxPoint3DShort& p) const { return p < *this; }

    /// Scalar product; beyond the range of int it wraps.
    int ScalProd(const VoxPoint3DShort& other) const;
    /// Euclidean distance.
    double Distance(const VoxPoint3DShort& other) const;
    /// Whether the other point lies in the cube of half-edge distance about this one, faces included.
    bool NearBy(const VoxPoint3DShort& other, int distance) const;
    /// The coordinates as (x,y,z), without blanks.
    std::string Print() const;
};
