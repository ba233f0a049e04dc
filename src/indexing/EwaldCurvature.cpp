#include "indexing/EwaldCurvature.h"

#include <cmath>

namespace {

// CODATA 2018, SI units: h, m_e, e, c.
constexpr double kPlanck = 6.62607015e-34;
constexpr double kMass = 9.1093837015e-31;
constexpr double kCharge = 1.602176634e-19;
constexpr double kLight = 299792458.0;

}  // namespace

EwaldCurvature::EwaldCurvature(double wavelength, double pixelSize)
    : m_factor(0.5 * wavelength * pixelSize * 1e-10) {}

double EwaldCurvature::wavelength(double kiloVolts) {
    if (!(kiloVolts > 0.0)) return 0.0;
    const double energy = kCharge * kiloVolts * 1e3;
    const double momentum2 = 2.0 * kMass * energy * (1.0 + energy / (2.0 * kMass * kLight * kLight));
    return kPlanck / std::sqrt(momentum2) * 1e10;
}

double EwaldCurvature::kiloVolts(double wavelength) {
    if (!(wavelength > 0.0)) return 0.0;
    const double momentum = kPlanck / (wavelength * 1e-10);
    const double relative = momentum / (kMass * kLight);
    const double energy = momentum * momentum / kMass / (1.0 + std::sqrt(1.0 + relative * relative));
    return energy / kCharge * 1e-3;
}

double EwaldCurvature::step(const double relative[3]) const {
    return m_factor * (relative[0] * relative[0] + relative[1] * relative[1] + relative[2] * relative[2]);
}

double EwaldCurvature::tiltOf(const double relative[3]) {
    if (relative[0] == 0.0 && relative[2] == 0.0) return 0.0;
    return std::atan(relative[2] / relative[0]);
}

void EwaldCurvature::correct(const double position[3], const double origin[3], double tilt, int sense,
                             double corrected[3]) const {
    const double relative[3] = {position[0] - origin[0], position[1] - origin[1], position[2] - origin[2]};
    const double along = sense * step(relative);
    corrected[0] = position[0] + along * std::sin(tilt);
    corrected[1] = position[1];
    corrected[2] = position[2] - along * std::cos(tilt);
}
