/// \file
/// Space groups of the gemmi library by the rotations that they contain.
#pragma once

#include <vector>

#include "pipeline/integration/LaueGroup.h"

namespace gemmi {
struct SpaceGroup;
}

namespace vrk {

/// The centrosymmetric space group without translations but the centring's, in whatever setting has these
/// axes; null when no setting has. \param rotations  closed under multiplication
const gemmi::SpaceGroup* symmorphicGroup(const LaueRotations& rotations, char centring);

/// All space groups with these axes whose Laue group and centring are the given ones; of two choices of the
/// origin the one on a centre of inversion.
std::vector<const gemmi::SpaceGroup*> spaceGroupsOf(const LaueRotations& rotations, char centring);

}  // namespace vrk
