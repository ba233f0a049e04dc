/// \file
/// The lattice type of indexed reflections, with the distortion of the instrument taken into account.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "crystallography/LatticeSymmetry.h"
#include "pipeline/geometry/InstrumentRefinement.h"
#include "pipeline/latticesearch/PositionRefinement.h"

namespace vrk {

/// What the choice looks at.
struct SymmetryInput {
    std::span<const Eigen::Vector3d> positions;   ///< voxels, not corrected for curvature
    std::span<const double> tilts;                ///< at which each was seen, radians
    Eigen::Vector3d centre;                       ///< of the volume, voxels
    double halfWidth = 0.0;                       ///< of the frames, voxels
    double wavelength = 0.0;                      ///< Angstrom; 0 is unknown
    double tolerance = 0.25;                      ///< of the fractional indices
    KnownTerms known = {};                        ///< of the instrument, which are not refined
    std::optional<LATTICE::BravaisTypes> wanted;  ///< the type, where it is given
};

/// A type and what the reflections say under its ties.
struct SymmetryChoice {
    RefinedPositions refined;                  ///< free, of the primitive cell; gives the indices
    RefinedLattice conventional;               ///< under the ties of the type
    RefinedLattice untied;                     ///< the conventional cell without ties
    RefinedInstrument instrument;              ///< under the same ties; not valid where it was not refined
    std::vector<LatticeCharacter> characters;  ///< the answer first
    /// The highest type that was refused although its ties leave the reflections nearly as close.
    std::optional<LATTICE::BravaisTypes> doubted;
    /// Whether a higher type was refused: then several sets of axes were tried, each of which an ellipse may
    /// suit.
    bool refusedHigher = false;
};

/// Conventional direct base = primitive direct base times this matrix.
Eigen::Matrix3d matrixOf(const LatticeCharacter& character);

/// The types that a cell nearly has, the most likely, or the one that is wanted, first, with axes that do not
/// depend on the last digits of the cell (settleAxes). Throws Failure
/// (NothingFound) when the cell spans no lattice, and (Usage) when it does not nearly have the type that is
/// wanted.
std::vector<LatticeCharacter> likelyCharacters(
    const UnitCell& cell, const std::optional<LATTICE::BravaisTypes>& wanted = std::nullopt);

/// Of the types that the cell nearly has, the highest whose ties leave the reflections as close to the nodes
/// as no ties at all do; or the one that is wanted. Throws Failure (NothingFound) when the cell spans no
/// lattice, and (Usage) when it does not nearly have the type that is wanted.
///
/// \param refined  without ties
SymmetryChoice chooseSymmetry(const SymmetryInput& input, RefinedPositions refined);

/// In what the reflections contradict the known terms of the instrument, as a part of a sentence; empty for
/// nothing. Asked are the ties of the answer, or where it has none those types that bind a cell by more
/// numbers than an ellipse has. Differences of less than a tenth of a per cent, or of five standard
/// uncertainties, are none.
std::string contradictionText(const SymmetryInput& input, const SymmetryChoice& choice);

/// Strength of that part of the refined ellipse which the reflections ask for under the ties of the type, and
/// not without some of them: all of it where the type is monoclinic, with as many ties as an ellipse has
/// numbers; where it is orthorhombic, that which goes when one of its angles is free, or all of it where the
/// lattice nearly has a higher type, which leaves several sets of axes for an ellipse to suit. A lattice
/// without those ties that was seen without that ellipse would look the same. 0 for types with more ties,
/// which it would take too many accidents to imitate.
double unprovenEllipse(const SymmetryInput& input, const SymmetryChoice& choice);

/// Which edges the ties move by more than three standard uncertainties, as a sentence; empty for none.
std::string strainText(const RefinedLattice& tied, const RefinedLattice& untied, LATTICE::BravaisTypes type);

}  // namespace vrk
