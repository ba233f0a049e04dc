/// \file
/// Cells as users give them: six numbers and a centring, or a cell file.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "crystallography/UnitCell.h"

namespace vrk {

/// A direct cell and a primitive base of its lattice, both in Angstrom.
struct CellInput {
    UnitCell cell;
    char centring = 'P';
    UnitCell primitive;
    /// primitive base = base of the cell x this matrix
    double toPrimitive[3][3];
};

/// @param numbers a b c in Angstrom, alpha beta gamma in degrees
/// @param centring P, A, B, C, I, F or R; R with gamma = 120 means hexagonal axes (obverse), otherwise the
///        cell is the rhombohedral one itself
/// Throws Failure for numbers that no cell has.
CellInput cellFromNumbers(const std::vector<double>& numbers, char centring);

/// The numbers of "a,b,c,alpha,beta,gamma". Throws Failure (usage) naming \p option for anything else.
std::array<double, 6> cellNumbers(const std::string& text, const std::string& option);

/// The cell of a cell file, which is primitive. Throws Failure when there is none.
/// @param pixelSize 1/m per pixel; 0 takes it from the file's own direct edges
CellInput cellFromFile(const std::filesystem::path& path, double pixelSize);

}  // namespace vrk
