/// \file
/// Where the time of a run goes, against what the memory of the machine could do.
#pragma once

#include <string>
#include <vector>

#include "pipeline/base/Workers.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// A step of the run against the memory.
struct StepProfile {
    std::string name;  ///< as in the seconds of the summary
    int times = 0;     ///< that it was done, as for another direction of the axis
    double seconds = 0.0;
    /// That its passes read and write of frames and volume, by their number: what caches save is not known.
    double movedBytes = 0.0;
    double neededBytes = 0.0;     ///< what comes in read once, what goes out written once
    double residentBytes = 0.0;   ///< of the process at its end
    double shareOfCopying = 0.0;  ///< of the rate, counted by what had to move; 0 where nothing large did
};

struct RunProfile {
    double copyRate = 0.0;  ///< bytes that memcpy() reads and writes in a second
    std::vector<StepProfile> steps;
    double secondsAlone = 0.0;  ///< processor time outside of loops that threads share
    std::vector<SharedLoopCost> loops = {};
};

/// What memcpy() reads and writes in a second, of blocks beyond the caches, in one thread: the best of some
/// tries.
double measuredCopyRate();

/// \param workers  that the run had
RunProfile profileOf(const RunResult& result, const Workers& workers, double copyRate);

}  // namespace vrk
