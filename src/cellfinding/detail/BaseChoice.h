/// \file
/// The choice of three base vectors among measured ones.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "cellfinding/Parameter.h"
#include "cellfinding/detail/ClusterCentres.h"

namespace VRK::detail {

/// Whether the angle of the two vectors is at least \p least and they are not nearly opposite.
bool isAngleBetween(const Vector& a, const Vector& b, double least);

/// Whether the absolute determinant exceeds \p detLimit and a tenth of the product of the lengths: noise
/// never leaves the determinant of coplanar vectors at 0. With 20 degrees between all three axes it is 0.103
/// of the product.
bool isOutOfPlane(const Vector& a, const Vector& b, const Vector& c, double detLimit);

/// Three vectors and how well their lattice explains others.
struct RankedBase {
    /// Logarithm of the likelihood ratio against chance, per weight of the judges.
    double evidence;
    std::array<Vector, 3> vectors;
};

/// Every three of the vectors that span a cell, those whose lattice explains the judges best first. A judge
/// is explained within \p radius of a node; what chance would put there is counted against the base, so that
/// small cells earn nothing by having nodes everywhere.
std::vector<RankedBase> rankBases(std::span<const Vector> vectors, std::span<const Centre> judges,
                                  double radius);

}  // namespace VRK::detail
