/// \file
/// The cell of a reciprocal lattice as it is written: the reciprocal base of the Niggli cell.
#pragma once

#include "crystallography/UnitCell.h"

namespace vrk {

/// The reciprocal base of the Niggli cell of the direct lattice, right-handed, with the pixel size of the
/// cell given. The reduction does not depend on whether that pixel size is known (or is the 1 of a lattice
/// without scale).
UnitCell niggliReduced(const UnitCell& reciprocal);

}  // namespace vrk
