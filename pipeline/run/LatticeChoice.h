/// \file
/// The lattice of a run, from the levels of its reflections.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "crystallography/BravaisTypes.h"
#include "pipeline/base/Session.h"
#include "pipeline/latticesearch/CellSearch.h"
#include "pipeline/run/CellOptions.h"
#include "pipeline/run/Levels.h"

namespace vrk {

struct LatticeChoice {
    LatticeCandidate best;
    std::optional<LatticeCandidate> runnerUp;
    std::size_t level = 0;    ///< at which it was found
    int sense = 0;            ///< of the tilt, where another crystal tells it; 0: to be found
    double tolerance = 0.25;  ///< of the fractional indices; less for a part of a split crystal
    std::optional<LATTICE::BravaisTypes> type;  ///< of the lattice, where another crystal tells it
    CellEvaluation evidence;                    ///< of the best, among the reflections that found it
};

/// The reflections of a level that lie so close to the axis or to the origin that the curvature of the Ewald
/// sphere hardly moves them, relative to the centre of the volume.
/// \param weights  receives their intensities; may be null
Points flatPoints(const Level& level, const ReciprocalVolume& volume, std::vector<double>* weights);

/// Searches every level. The merit of a lattice is its evidence times the share of the reflections on it: a
/// lower threshold has more points and with them more evidence; what counts is that it is not bought with
/// reflections that fit badly. Throws Failure (NothingFound) when no lattice is convincing.
LatticeChoice findLattice(const std::vector<Level>& levels, const ReciprocalVolume& volume,
                          const CellOptions& options, Session& session);

}  // namespace vrk
