/// \file
/// The same axes from metrics that differ by noise.
#pragma once

#include <vector>

#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"

namespace vrk {

/// Turns the conventional axes of a character into those, of all that a rotation of its lattice makes of
/// them, whose matrix has the largest trace and then the largest entries in reading order. Which of the
/// equivalent axes the analysis finds depends on the last digits of the cell; these depend on its base alone,
/// so that two refinements of one cell index alike. The measured cell changes with them. \param cell  that
/// was analysed
void settleAxes(LatticeCharacter& character, const UnitCell& cell);

/// The other axes that a lattice may have as one of this type when it nearly has a higher one: rotations of
/// the higher type take the axes to them. A tetragonal lattice that is nearly cubic has three axes that may
/// be the fourfold one, and which it is an ellipse can hide. Settled, each once, without those given; misfits
/// are of the measured cells.
std::vector<LatticeCharacter> otherAxes(const LatticeCharacter& character, const LatticeCharacter& higher,
                                        const UnitCell& cell);

}  // namespace vrk
