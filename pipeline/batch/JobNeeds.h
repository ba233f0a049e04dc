/// \file
/// What a job asks of the machine that runs it.
#pragma once

#include "pipeline/batch/SeriesFinder.h"

namespace vrk {

struct JobNeeds {
    int memory = 0;   ///< MiB
    int minutes = 0;  ///< of time
    int cores = 1;

    friend bool operator==(const JobNeeds&, const JobNeeds&) = default;
};

/// By the size of the series: room for its frames twice, for the reciprocal volume, which is a cube of the
/// frames' width, and half as much again. Rounded up to steps of a quarter of a power of two, so that many
/// jobs ask for the same. A series of unknown size counts as one of 300 frames of a thousand pixels.
/// \param doublings  times that the job ended without a word, as one does that ran into a limit: each asks
/// for
///                   twice as much
JobNeeds needsOf(const FoundSeries& series, int cores, int doublings);

}  // namespace vrk
