/// \file
/// The shadow over the middle of a simulated frame.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// A bar that ends in a disc. It is mounted in the microscope: it does not move with the beam. Pixels on its
/// rim are covered in part.
class SimulatedBeamStop {
public:
    SimulatedBeamStop(const BeamStopSettings& settings, int size);

    /// Dims the expected counts behind the stop and adds its pedestal.
    void cover(std::span<float> frame) const;

private:
    struct Covered {
        std::size_t pixel;
        float transmission;
        float pedestal;
    };
    std::vector<Covered> m_covered;
};

}  // namespace vrk
