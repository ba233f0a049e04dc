/// \file
/// The frames of a simulated series: their tilts and the centres of their patterns.
#pragma once

#include <vector>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

struct SimulatedFrame {
    double tilt = 0;        ///< true, degrees
    double statedTilt = 0;  ///< what the header says, degrees
    double centreX = 0;     ///< of the pattern, pixels
    double centreY = 0;
    bool blank = false;
};

/// The frames of a series in their order, without the missing ones. The first and the last are never missing.
std::vector<SimulatedFrame> placeFrames(const SimulationSettings& settings);

}  // namespace vrk
