#include "pipeline/simulation/PatternDistortion.h"

#include <cmath>
#include <numbers>

namespace vrk {

PatternDistortion::PatternDistortion(const DistortionSettings& settings, int size)
    : m_none(settings.ellipse == 0 && settings.radial == 0),
      m_radial(settings.radial / (0.25 * size * size)) {
    const double angle = 2 * settings.ellipseAzimuth * std::numbers::pi / 180;
    const double c = settings.ellipse * std::cos(angle);
    const double s = settings.ellipse * std::sin(angle);
    const double determinant = 1 - settings.ellipse * settings.ellipse;
    m_ellipse = {{{1 + c, s}, {s, 1 - c}}};
    m_inverse = {{{(1 - c) / determinant, -s / determinant}, {-s / determinant, (1 + c) / determinant}}};
}

std::pair<double, double> PatternDistortion::recorded(double x, double y) const {
    const double factor = 1 + m_radial * (x * x + y * y);
    return {factor * (m_ellipse[0][0] * x + m_ellipse[0][1] * y),
            factor * (m_ellipse[1][0] * x + m_ellipse[1][1] * y)};
}

double PatternDistortion::idealSquare(double x, double y) const {
    const double x1 = m_inverse[0][0] * x + m_inverse[0][1] * y;
    const double y1 = m_inverse[1][0] * x + m_inverse[1][1] * y;
    const double square = x1 * x1 + y1 * y1;
    // r (1 + k r^2) = r1 by iteration: k r^2 is some per cent at most.
    double ideal = square;
    for (int i = 0; i < 4 && m_radial != 0; ++i) {
        const double factor = 1 + m_radial * ideal;
        ideal = square / (factor * factor);
    }
    return ideal;
}

}  // namespace vrk
