#include "pipeline/simulation/SimulatedDetector.h"

#include <algorithm>
#include <cmath>

namespace vrk {

SimulatedDetector::SimulatedDetector(const DetectorSettings& settings, std::uint64_t seed)
    : m_settings(settings) {
    SimulationRandom random(seed);
    const int pixels = settings.size * settings.size;
    for (int i = 0; i < settings.hotPixels; ++i) {
        const auto position = static_cast<std::size_t>(random.index(pixels));
        m_hotPixels.emplace_back(position, random.uniform(1000, 20000));
    }
    markDeadPixels();
}

void SimulatedDetector::markDeadPixels() {
    if (!m_settings.cross) return;
    const int size = m_settings.size;
    const double middle = (size - 1) * 0.5;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)
            if (std::abs(x - middle) < 1.6 || std::abs(y - middle) < 1.6)
                m_deadPixels.push_back(static_cast<std::size_t>(y * size + x));
}

double SimulatedDetector::noisy(double expected, SimulationRandom& random) const {
    if (m_settings.noise == 0) return expected;
    const double counted = random.poisson(expected);
    return m_settings.noise == 1 ? counted : expected + m_settings.noise * (counted - expected);
}

void SimulatedDetector::record(std::span<const float> frame, std::span<short> recorded,
                               SimulationRandom& random) const {
    const double highest = std::min(m_settings.saturation, 32767.0);
    const auto store = [&](std::size_t i, double counts) {
        recorded[i] = static_cast<short>(std::floor(std::clamp(counts, 0.0, highest) + 0.5));
    };
    for (std::size_t i = 0; i < frame.size(); ++i)
        store(i, noisy(frame[i], random));
    for (const auto& [position, counts] : m_hotPixels)
        store(position, noisy(counts, random));
    for (int i = 0; i < m_settings.zingers; ++i) {
        const auto position = static_cast<std::size_t>(random.index(static_cast<int>(frame.size())));
        store(position, random.uniform(500, 20000));
    }
    for (const std::size_t position : m_deadPixels)
        recorded[position] = 0;
}

}  // namespace vrk
