#include "pipeline/simulation/RockingCurve.h"

#include <cmath>
#include <numbers>

#include "pipeline/base/Angle.h"

namespace vrk {
namespace {

/// Reflections farther than this many widths from the sphere are not recorded.
constexpr double kReach = 4.5;
/// Rocking width at which the given peak height is that of a reflection on the sphere, 1/Angstrom.
constexpr double kReferenceWidth = 0.0025;

}  // namespace

RockingCurve::RockingCurve(const SimulationSettings& settings)
    : m_mode(settings.mode),
      m_width(settings.rockingWidth),
      m_scale(frameExposure(settings) *
              (settings.counts == CountModel::Time ? kReferenceWidth / settings.rockingWidth : 1)),
      m_halfRotation(settings.mode == RotationMode::Continuous
                         ? frameRotation(settings) * settings.tiltErrors.scale * kDegree / 2
                         : 0),
      m_precession(settings.mode == RotationMode::Precession ? settings.precessionAngle * kDegree : 0) {}

double RockingCurve::reach(double speed, double length) const {
    return kReach * m_width + std::abs(speed) * m_halfRotation + length * m_precession;
}

double RockingCurve::time(double distance, double speed, double length) const {
    if (m_mode == RotationMode::Continuous) return m_scale * overRotation(distance, speed * m_halfRotation);
    if (m_mode == RotationMode::Precession) return m_scale * overPrecession(distance, length * m_precession);
    return m_scale * profile(distance);
}

double RockingCurve::profile(double distance) const {
    const double relative = distance / m_width;
    return std::exp(-relative * relative / 2);
}

double RockingCurve::overRotation(double distance, double halfSweep) const {
    const double half = std::abs(halfSweep) / (m_width * std::numbers::sqrt2);
    if (half < 1e-3) return profile(distance);
    const double middle = distance / (m_width * std::numbers::sqrt2);
    return std::sqrt(std::numbers::pi) * (std::erf(middle + half) - std::erf(middle - half)) / (4 * half);
}

double RockingCurve::overPrecession(double distance, double amplitude) const {
    constexpr int steps = 64;
    double sum = 0;
    for (int i = 0; i < steps; ++i)
        sum += profile(distance + amplitude * std::cos((i + 0.5) * std::numbers::pi / steps));
    return sum / steps;
}

}  // namespace vrk
