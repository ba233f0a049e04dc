/// \file
/// From integrated intensities to scaled, merged ones and to the symmetry that they show.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/Integration.h"
#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Merging.h"
#include "pipeline/integration/Scaling.h"
#include "pipeline/integration/SpaceGroups.h"
#include "pipeline/integration/WilsonPlot.h"

namespace vrk {

struct DataReduction {
    LaueChoice laue;
    ScaleModel scales;
    ErrorModel errors;
    int outliers = 0;
    /// Good reflections, scaled, with the uncertainties of the error model, sorted by h, k, l; source is
    /// their number among the integrated ones.
    std::vector<Observation> observations;
    std::vector<MergedReflection> merged;
    MergingStatistics statistics;
    MergingStatistics friedelStatistics;  ///< of the same observations merged in -1
    WilsonPlot wilson;
    SpaceGroupAnalysis spaceGroups;
};

/// Chooses the Laue group, scales the frames by equivalents in it, fits the error model, rejects outliers,
/// chooses again on the scaled intensities (and starts over when the answer is another one), merges and ranks
/// the space groups. \param reflections  of a series with frameCount frames; only good ones are used \param
/// reciprocal   columns of the conventional cell, tied Throws Failure (NothingFound) when there are no good
/// reflections.
DataReduction reduceData(std::span<const IntegratedReflection> reflections, std::size_t frameCount,
                         const Eigen::Matrix3d& reciprocal, char centring, double dMin);

}  // namespace vrk
