/// \file
/// Fits of base vectors to cluster centres.
#pragma once

#include <array>
#include <span>

#include "cellfinding/detail/ClusterCentres.h"

namespace VRK::detail {

/// Moves the direction so that its multiples fit the centres of its row (CalculateCellAlgorithm, step six).
/// False, with nothing changed, when no centre lies on the row.
bool fitToItsRow(std::span<const Centre> centres, Vector& direction);

/// Moves three vectors at once so that their lattice fits the centres near its nodes, least squares with the
/// weights of the centres. Far centres join when the near ones have been fitted. False, with nothing changed,
/// when the vectors lie in a plane or the centres do not determine all three.
bool fitToLattice(std::span<const Centre> centres, std::array<Vector, 3>& base);

/// Puts the vector onto the centre that is nearest to it or, reversed, to its opposite, within \p reach.
bool moveToNearest(std::span<const Centre> centres, double reach, Vector& vector);

}  // namespace VRK::detail
