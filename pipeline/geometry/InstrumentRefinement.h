/// \file
/// Refinement of the instrument's geometry together with the lattice.
#pragma once

#include <array>
#include <limits>
#include <span>
#include <vector>

#include "pipeline/geometry/InstrumentModel.h"
#include "pipeline/latticesearch/LatticeFit.h"

namespace vrk {

struct InstrumentSettings {
    double halfWidth = 0.0;   ///< of the frames, voxels
    double wavelength = 0.0;  ///< Angstrom
    int sense = 0;            ///< of the tilt, as in EwaldCurvature
    double tolerance = 0.25;  ///< of the fractional indices
    CellTies ties;
    KnownTerms known = {};  ///< terms that are not refined
    /// Every term that the reflections determine is refined, however small: for a calibration, which is to
    /// say that a term is 0 as well.
    bool allTerms = false;
};

struct RefinedInstrument {
    bool valid = false;
    InstrumentModel model{1.0, 0.0};
    std::array<bool, kInstrumentTerms> used{};  ///< determined by the data and significant; the others are 0
    std::array<double, kInstrumentTerms> sigma{};  ///< standard uncertainties of those used
    /// Of the terms and the lattice together: largest correlation of each used term with any other number.
    std::array<double, kInstrumentTerms> correlation{};
    /// Of the used terms; 0 elsewhere.
    Eigen::Matrix<double, kInstrumentTerms, kInstrumentTerms> covariance =
        Eigen::Matrix<double, kInstrumentTerms, kInstrumentTerms>::Zero();
    RefinedLattice lattice;  ///< on the corrected positions; uncertainties hold those of the used terms
    std::vector<Eigen::Vector3d> positions;  ///< corrected, in the order of the input, voxels of the volume
    std::vector<Indices> indices;
    /// Standard uncertainty of the direction of the axis, whether it was used or not, radians.
    double axisTurnSigma = std::numeric_limits<double>::infinity();
    /// The same with what an ellipse does to it, where that is neither known nor refined: one of the usual
    /// strength turns the axis of a crystal without ties by some tenths of a degree.
    double axisSigma = std::numeric_limits<double>::infinity();
    double rmsBefore = 0.0;  ///< of the indexed reflections without any term, voxels

    double ellipse() const;         ///< strength e
    double ellipseAzimuth() const;  ///< degrees from the radial direction towards the axis, -90 to 90
    bool uses(InstrumentTerm term) const { return used[static_cast<std::size_t>(term)]; }
};

/// Fits lattice and instrument to reflections by robust least squares (weights after Tukey) with all numbers
/// at once, from the reflections near the origin outwards. Terms come in one after the other, that first
/// which takes most from the sum of squares, as long as the Bayesian information criterion (G. Schwarz, Ann.
/// Stat. 6, 461 (1978), doi:10.1214/aos/1176344136) asks for it and the term moves the reflections by more
/// than a twentieth of a voxel. An ellipse stretches all reciprocal space alike and cannot be told from the
/// cell where that has no ties: its terms are tried with ties alone. Of an ellipse along a direction that the
/// ties leave free, only what the reflections tell is refined; its uncertainty and those of the cell then
/// hold what an ellipse of the usual strength, one per cent, would do beside. An offset of all tilts turns
/// the crystal and is not looked for.
///
/// \param positions  in the volume, voxels; not corrected for curvature
/// \param tilts      at which each was seen, radians
/// \param start      its origin is near the centre of the volume
/// \param centre     of the volume, where the patterns' centres are, voxels
RefinedInstrument refineInstrument(std::span<const Eigen::Vector3d> positions, std::span<const double> tilts,
                                   const Lattice& start, const Eigen::Vector3d& centre,
                                   const InstrumentSettings& settings);

}  // namespace vrk
