/// \file
/// The same axes from metrics that differ by noise.
#pragma once

#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"

namespace vrk {

/// Turns the conventional axes of a character into those, of all that a rotation of its lattice makes of
/// them, whose matrix has the largest trace and then the largest entries in reading order. Which of the
/// equivalent axes the analysis finds depends on the last digits of the cell; these depend on its base alone,
/// so that two refinements of one cell index alike. The measured cell changes with them. \param cell  that
/// was analysed
void settleAxes(LatticeCharacter& character, const UnitCell& cell);

}  // namespace vrk
