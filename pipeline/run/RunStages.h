/// \file
/// The stages of a run, each of which a caller may replace by its own.
#pragma once

#include <functional>
#include <vector>

#include "pipeline/run/Indexing.h"
#include "pipeline/run/Intensities.h"
#include "pipeline/run/LatticeChoice.h"
#include "pipeline/run/Levels.h"
#include "pipeline/run/PreparedSeries.h"
#include "pipeline/run/ReciprocalVolume.h"

namespace vrk {

/// What run() calls. Everything around the stages stays the run's: it calls them again where the axis moves
/// or centres are put right. A stage that finds nothing throws Failure (NothingFound), one that sees
/// Session::canceled() may return early by Session::checkCanceled().
struct RunStages {
    std::function<CentredSeries(Series, const CentreChoice&, bool keepCounts, Session&)> centre = vrk::centre;
    std::function<TiltAxis(const CentredSeries&, const AxisChoice&, Session&)> findAxis = vrk::findAxis;
    std::function<ReciprocalVolume(const CentredSeries&, Session&)> reconstruct = vrk::reconstruct;
    /// Levels by rising threshold, at least one, with reflections.
    std::function<std::vector<Level>(const ReciprocalVolume&, const SearchOptions&, Session&)> searchLevels =
        vrk::searchLevels;
    std::function<LatticeChoice(const std::vector<Level>&, const ReciprocalVolume&, const CellOptions&,
                                Session&)>
        findLattice = vrk::findLattice;
    std::function<Indexed(std::vector<Level>, const LatticeChoice&, const ReciprocalVolume&, const TiltAxis&,
                          Session&)>
        indexReflections = vrk::indexReflections;
    std::function<Intensities(const Indexed&, const ReciprocalVolume&, const TiltAxis&, const RecordedCounts&,
                              const IntensityChoice&, Session&)>
        measureIntensities = vrk::measureIntensities;
};

}  // namespace vrk
