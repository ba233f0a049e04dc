/// \file
/// From a lattice to indexed reflections, the refined cell and its symmetry.
#pragma once

#include <Eigen/Core>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"
#include "pipeline/base/Session.h"
#include "pipeline/geometry/CurvatureScale.h"
#include "pipeline/geometry/InstrumentRefinement.h"
#include "pipeline/latticesearch/Completeness.h"
#include "pipeline/latticesearch/Confidence.h"
#include "pipeline/latticesearch/PositionRefinement.h"
#include "pipeline/run/LatticeChoice.h"

namespace vrk {

struct Indexed {
    Level level;                 ///< whose reflections were indexed
    double cellThreshold = 0.0;  ///< of the level that gave the lattice
    /// That level, where a higher one was taken since less of it lies on the lattice: another crystal may be
    /// the reason.
    std::optional<Level> weaker;
    RefinedPositions refined;                  ///< free, of the reduced cell
    RefinedLattice conventional;               ///< under the ties of its type
    RefinedInstrument instrument;              ///< under the same ties; not valid where it was not refined
    std::vector<LatticeCharacter> characters;  ///< the answer first
    std::string strain;                        ///< edges that the ties move; empty for none
    std::string contradiction;                 ///< of what is known of the instrument; empty for none
    CurvatureScale curvature;                  ///< the pixel size as the sphere tells it
    double unprovenEllipse = 0.0;              ///< part of the ellipse for which the symmetry alone speaks
    std::optional<LATTICE::BravaisTypes> doubted;  ///< a higher type, refused by a hair
    LatticeEvidence evidence;                      ///< on which the verdict rests
    Verdict verdict;
    double resolution = 0.0;    ///< smallest spacing of an indexed reflection, Angstrom
    Completeness completeness;  ///< of the nodes of the reduced cell
    /// The reflections determine the direction of the axis and find it where it was taken to be.
    bool axisConfirmed = false;

    const Lattice& lattice() const { return refined.lattice.lattice; }
    const LatticeCharacter& symmetry() const { return characters.front(); }
    /// Conventional direct base = reduced direct base times this matrix.
    Eigen::Matrix3d toConventional() const;
    /// The conventional reciprocal cell in the volume, with the free metric.
    UnitCell conventionalCell() const;
};

/// What the indexing knows of the recording of the reflections. Places are those of a volume that was built
/// about y.
struct Recording {
    /// The radius that was cut off and the sense are those of the level and of the refinement.
    RecordedSpace space;
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  ///< of the volume, voxels
    double pixelSize = 0.0;                            ///< 1/m per voxel; 0 is unknown
    KnownTerms known = {};                             ///< of the instrument
    bool ellipseKnown = false;                         ///< by a calibration
    bool axisAssumed = false;                          ///< nobody stated or found it
    bool estimated = false;                            ///< all of this, from the reflections alone
};
Recording recordingOf(const ReciprocalVolume& volume, const TiltAxis& axis);

/// Of the place that is farthest from the origin of a lattice with a pixel size, Angstrom; 0 where there is
/// none.
double finestSpacing(std::span<const Eigen::Vector3d> places, const Lattice& lattice);

/// Refines the lattice on the level that gave it, goes to the level that adds most reflections without
/// leaving the lattice, indexes its reflections and finds the symmetry. Throws Failure (NothingFound) when
/// the lattice cannot be refined.
Indexed indexReflections(std::vector<Level> levels, const LatticeChoice& choice,
                         const ReciprocalVolume& volume, const TiltAxis& axis, Session& session);
/// The same wherever the reflections come from.
Indexed indexRecorded(std::vector<Level> levels, const LatticeChoice& choice, const Recording& recording,
                      Session& session);

/// \name Its choices
/// @{

/// The level to index, of those whose share on the lattice \p indexed gives (by rising threshold). Going down
/// from the one that gave the lattice, reflections are added as long as nearly all lie on the lattice, or,
/// where distortions never let them, most of those that come. When that level is the lowest that serves, a
/// higher one is taken as long as it is clearly cleaner.
struct LevelShare {
    std::size_t reflections = 0;
    int indexed = 0;
    double fraction() const {
        return reflections > 0 ? static_cast<double>(indexed) / static_cast<double>(reflections) : 0.0;
    }
};
/// \param share  asked once for each level that is looked at; nothing when it cannot be indexed
std::size_t chooseLevel(std::size_t found, std::size_t levels,
                        const std::function<std::optional<LevelShare>(std::size_t)>& share);
/// @}

}  // namespace vrk
