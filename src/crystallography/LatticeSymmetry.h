/// \file
/// Which Bravais types fit a lattice, and the conventional cell of each.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "crystallography/BravaisTypes.h"

class UnitCell;

/// How far a cell may be from the symmetric one. The defaults suit electron diffraction, where distortions
/// of the lens bend angles by more than a degree.
struct LatticeTolerances {
    double angle = 2.0;    ///< largest angular misfit in degrees
    double length = 0.03;  ///< largest relative misfit of an edge
};

/// Edges in the cell's unit, angles in degrees.
struct CellParameters {
    double a, b, c, alpha, beta, gamma;
};

/// One lattice symmetry that fits.
struct LatticeCharacter {
    /// 1 ... 44, the character of the reduced form of the lattice once it is symmetrised: on a border between
    /// characters of the type the lowest; where the form has a higher symmetry, one whose base fits the cell.
    int number = 0;
    LATTICE::BravaisTypes bravaisType = LATTICE::NoBravaisType;
    char centring = 'P';         ///< P, I, F, C or R (hexagonal axes, obverse setting)
    double qualityIndex = -1.0;  ///< largest angular misfit, in degrees, of the conventional cell
    double lengthMisfit = 0.0;   ///< largest relative misfit of an edge of the conventional cell
    /// Conventional base = base of the analysed direct cell x this matrix (vectors as columns). The
    /// determinant is positive and the number of lattice points of the conventional cell.
    int toConventional[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    CellParameters measured = {};     ///< conventional cell as it came out
    CellParameters symmetrised = {};  ///< its metric averaged over the symmetry of the type
};

/// The 44 lattice characters of the reduced form (International Tables for Crystallography A, table 9.2.5.1;
/// Mighell & Rodgers 1980, doi:10.1107/S0567739480000782) as a fit that tolerates errors of measurement.
///
/// The lattice is reduced to its three shortest vectors. Because errors move a cell between characters, all
/// bases that are nearly as short are tried as well (matrices with entries -1, 0, 1). For each character the
/// conventional cell is formed by the integer matrix of the table and compared with its own symmetrised form,
/// the metric averaged over the point group of the Bravais type. The misfits are those of the conventional
/// cell's angles (against 90 or 120 degrees) and edges (against their mean); of the bases of one character
/// the one with the smallest misfits counts, their squares added in units of the tolerances.
///
/// Conventional settings: c is the unique axis of tetragonal, hexagonal and rhombohedral cells; a <= b <= c
/// in oP, oI, oF; a <= b with the centred face between them in oC; b is unique in mP and mC, a and c are the
/// shortest vectors across it (in mC the shortest that leave the centring on C), beta >= 90; aP is the
/// reduced cell. The handedness of the input stays.
///
/// The analysis does not depend on the unit of the cell: all comparisons are relative.
class VRKCORE_EXPORT LatticeSymmetry {
public:
    /// Every symmetry that fits, the highest first (by the order of the point group of the lattice) and
    /// within one symmetry the smallest misfit first. Fits that lead to the same conventional axes come once,
    /// as the best of them. A triclinic character is always among them; empty for a degenerate cell and for
    /// one whose reduction does not fit into whole numbers of 32 bits (edges that differ by a factor of many
    /// millions).
    ///
    /// The vectors count as a primitive base whatever isPrimitiv() says. It is the crystal's direct lattice
    /// that is analysed: for a reciprocal cell the analysis is that of getReciprocalCell(), with parameters
    /// in Angstrom. A reciprocal base R turns into the reciprocal conventional base R x (M^-1)^T with M the
    /// matrix given (UnitCell::transformIntoConventionalCell does this).
    static std::vector<LatticeCharacter> analyse(const UnitCell& cell,
                                                 const LatticeTolerances& tolerances = {});

    /// Puts the answer to the front of what analyse() found; the others stay in their order.
    ///
    /// The answer is the highest symmetry. Tolerances for measured cells let a cell pass for one of higher
    /// symmetry, though; distortions of the lens spoil every symmetry alike. So a lower symmetry that still
    /// ties something is the answer where it fits ten times better and the higher one is off by more than
    /// 0.06 degrees and six times the uncertainty. The misfit of an edge counts as the angle by which it
    /// turns the diagonals.
    /// @param angleSigma standard uncertainty of the angles of the cell in degrees, 0 when it is not known
    static void preferExactFit(std::vector<LatticeCharacter>& characters, double angleSigma = 0.0);

    /// The answer alone; number 0 and NoBravaisType for a degenerate cell.
    static LatticeCharacter best(const UnitCell& cell, const LatticeTolerances& tolerances = {},
                                 double angleSigma = 0.0);

    /// The conventional cell that belongs to a result of analyse() for this cell: direct or reciprocal as
    /// the cell is, with type, character and quality index set.
    static UnitCell conventionalCell(const UnitCell& cell, const LatticeCharacter& character);

    /// @name The table
    /// For a character outside 1 ... 44 "Cell type has to be between 1 and 44" is logged as an error and the
    /// answer is NoBravaisType, a blank, or false with M untouched.
    /// @{
    static LATTICE::BravaisTypes getBravaisType(int character);
    static char getCentring(int character);
    /// The matrix from the reduced form to the conventional cell, vectors as columns.
    static bool getTransformation(int character, int M[3][3]);
    /// @}
};
