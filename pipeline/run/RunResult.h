/// \file
/// Everything that a run found.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pipeline/run/FurtherCrystals.h"
#include "pipeline/run/Indexing.h"
#include "pipeline/run/Intensities.h"
#include "pipeline/run/LatticeChoice.h"
#include "pipeline/run/PreparedSeries.h"
#include "pipeline/run/ReciprocalVolume.h"

namespace vrk {

/// What a stage cost.
struct StageCost {
    double seconds = 0.0;   ///< of wall-clock time
    double memory = 0.0;    ///< largest resident size of the process up to its end, MiB
    double resident = 0.0;  ///< resident size at its end, MiB
    int times = 0;          ///< that it was done

    StageCost& operator+=(double more) {
        seconds += more;
        return *this;
    }
};

/// The cost of each stage.
struct RunSeconds {
    StageCost read, preprocess, tiltAxis, reconstruct, search, cell, index, integrate, total;
};

struct RunResult {
    TiltAxis axis;
    ReciprocalVolume volume;  ///< with the facts of the series
    LatticeChoice lattice;    ///< as found, relative to the centre of the volume
    Indexed indexed;
    RecordedCounts counts;                   ///< the frames that they were measured on; otherwise none
    std::optional<Intensities> intensities;  ///< measured on the frames, where wanted and possible
    Crystals crystals;                       ///< the others
    RunSeconds seconds;
    std::vector<std::string> warnings = {};  ///< of the session so far, each text once
    RunOptions options = {};                 ///< that the run was given

    const SeriesFacts& facts() const { return volume.facts; }
    /// Direction of the axis as the reflections have it, degrees; that of the volume where they do not say.
    double refinedAxis() const;
    /// Its standard uncertainty, degrees, the correlation with cell and distortion included; infinite where
    /// the reflections do not say.
    double refinedAxisSigma() const;
};

}  // namespace vrk
