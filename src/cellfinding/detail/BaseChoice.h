/// \file
/// The choice of three base vectors among measured ones.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "cellfinding/BaseVectorVerdict.h"
#include "cellfinding/Parameter.h"
#include "cellfinding/detail/ClusterCentres.h"

namespace VRK::detail {

/// Why a candidate is, or is not, one of the three.
struct Judgement {
    BaseVectorVerdict verdict;
    /// The angle in radians, or the volume as a share of the product of the lengths, that decided; else 0.
    double value;
};

/// The shortest three vectors that satisfy the limits of CalculateCellAlgorithm, step four.
/// \param sorted      shortest first
/// \param judgements  may be null; replaced by one for each vector
/// \returns the places of a, b, c; nothing when there are no three
std::optional<std::array<std::size_t, 3>> chooseShortest(std::span<DiffVector3D* const> sorted,
                                                         const Parameter& parameter,
                                                         std::vector<Judgement>* judgements);

/// Whether three vectors span a cell: noise never leaves the determinant of coplanar vectors at 0. With 20
/// degrees between all three axes it is 0.103 of the product of the lengths, so that even these cells pass.
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
