#include "pipeline/simulation/PatternDistortion.h"

#include <cmath>
#include <numbers>

namespace vrk {

PatternDistortion::PatternDistortion(const DistortionSettings& settings, int size) {
    const double angle = 2 * settings.ellipseAzimuth * std::numbers::pi / 180;
    const double c = settings.ellipse * std::cos(angle);
    const double s = settings.ellipse * std::sin(angle);
    const double determinant = 1 - settings.ellipse * settings.ellipse;
    m_lens = {c, s, settings.radial / (0.25 * size * size)};
    m_inverse = {{{(1 - c) / determinant, -s / determinant}, {-s / determinant, (1 + c) / determinant}}};
}

double PatternDistortion::idealSquare(double x, double y) const {
    const double x1 = m_inverse[0][0] * x + m_inverse[0][1] * y;
    const double y1 = m_inverse[1][0] * x + m_inverse[1][1] * y;
    const double square = x1 * x1 + y1 * y1;
    // r (1 + k r^2) = r1 by iteration: k r^2 is some per cent at most.
    double ideal = square;
    for (int i = 0; i < 4 && m_lens.radial != 0; ++i) {
        const double factor = 1 + m_lens.radial * ideal;
        ideal = square / (factor * factor);
    }
    return ideal;
}

}  // namespace vrk
