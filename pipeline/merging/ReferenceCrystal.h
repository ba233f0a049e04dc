/// \file
/// The crystal whose indices others are to have.
#pragma once

#include <array>
#include <filesystem>
#include <optional>

#include "pipeline/merging/CrystalData.h"

namespace vrk {

/// A data set from before that says how crystals are to be indexed:
///
/// - a folder of `vrk run`: its first crystal;
/// - a folder of `vrk merge`: its merged intensities;
/// - an HKL file, HKLF 4 or its five numbers in a line with blanks between them, merged or not. The cell is
///   \p cell, or that of the instructions beside it: the file of the same name with the ending .ins or .res,
///   or crystal.ins.
///
/// \param cell  a, b, c in Angstrom, alpha, beta, gamma in degrees, of the axes of an HKL file
/// \param like  a crystal of the same lattice: where the reference does not say its centring or its type
/// Throws Failure that names the file, the line and what it lacks; (Usage) for a cell where there is one
/// already, and for an HKL file without.
CrystalData readReferenceCrystal(const std::filesystem::path& path,
                                 const std::optional<std::array<double, 6>>& cell, const CrystalData& like);

}  // namespace vrk
