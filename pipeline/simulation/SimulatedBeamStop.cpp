#include "pipeline/simulation/SimulatedBeamStop.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vrk {

SimulatedBeamStop::SimulatedBeamStop(const BeamStopSettings& settings, int size) {
    const double halfWidth = settings.width.value_or(0.02 * size) / 2;
    const double radius = settings.disc.value_or(0.02 * size);
    const double angle = settings.direction * std::numbers::pi / 180;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const double middle = (size - 1) * 0.5;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            const double dx = x - middle - settings.offset[0];
            const double dy = y - middle - settings.offset[1];
            const double along = c * dx + s * dy;
            const double across = std::abs(c * dy - s * dx);
            const double intoDisc = radius > 0 ? radius - std::hypot(dx, dy) : -1;
            const double intoBar = halfWidth > 0 ? std::min(halfWidth - across, along) : -1;
            const double cover = std::clamp(std::max(intoDisc, intoBar) + 0.5, 0.0, 1.0);
            if (cover > 0)
                m_covered.push_back({static_cast<std::size_t>(y) * static_cast<std::size_t>(size) +
                                         static_cast<std::size_t>(x),
                                     static_cast<float>(1 - cover * (1 - settings.transmission)),
                                     static_cast<float>(cover * settings.pedestal)});
        }
}

void SimulatedBeamStop::cover(std::span<float> frame) const {
    for (const Covered& one : m_covered)
        frame[one.pixel] = frame[one.pixel] * one.transmission + one.pedestal;
}

}  // namespace vrk
