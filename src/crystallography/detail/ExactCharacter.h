/// \file
/// The lattice character of a lattice freed from its misfit.
#pragma once

#include "crystallography/detail/LatticeCharacterTable.h"

namespace VRK::detail {

/// Errors of measurement move a base across the borders between the characters, so that several rows of one
/// Bravais type fit it equally well. The lattice that is symmetric as the row asks has one reduced form, and
/// that has one number.
/// @param row a row that fits
/// @param form metric of the nearly reduced base that it fits
/// @return the lowest number of those of the type that hold for the symmetric lattice (several do on a border
/// between them); that of the row where none does because the symmetry is higher
int exactCharacter(const CharacterRow& row, const Metric& form);

}  // namespace VRK::detail
