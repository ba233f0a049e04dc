/// \file
/// The camera of a simulated tilt series.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// Turns expected counts into a recorded frame. Counts above the saturation are recorded as the saturation.
class SimulatedDetector {
public:
    SimulatedDetector(const DetectorSettings& settings, std::uint64_t seed);

    /// Counting noise, defects and saturation. Frame and record have size * size elements.
    void record(std::span<const float> frame, std::span<short> recorded, SimulationRandom& random) const;

private:
    double noisy(double expected, SimulationRandom& random) const;
    void markDeadPixels();

    DetectorSettings m_settings;
    std::vector<std::pair<std::size_t, double>> m_hotPixels;
    std::vector<std::size_t> m_deadPixels;
};

}  // namespace vrk
