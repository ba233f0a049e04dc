/// \file
/// Edges and angles of a unit cell as one value.
#pragma once

#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"

namespace vrk {

/// \returns a, b, c in the units of the cell, alpha, beta and gamma in degrees
CellParameters parametersOf(const UnitCell& cell);

}  // namespace vrk
