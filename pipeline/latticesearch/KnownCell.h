/// \file
/// A lattice recognised as that of a known cell.
#pragma once

#include <Eigen/Core>
#include <array>
#include <optional>

namespace vrk {

/// The transformation that brings a lattice to a known cell: cell base = primitive base times this matrix,
/// vectors as columns, right-handed. A common scale of up to 15 %, and beyond it strains of up to 4 % and 4
/// degrees are borne: pixel sizes and lenses do as much. The known cell may be centred up to fourfold.
///
/// \param primitive  base vectors of the direct lattice as columns, Angstrom
/// \param cell       a, b, c in Angstrom, alpha, beta, gamma in degrees
/// \returns the closest of those that are, or nothing
std::optional<Eigen::Matrix3d> toKnownCell(const Eigen::Matrix3d& primitive,
                                           const std::array<double, 6>& cell);

}  // namespace vrk
