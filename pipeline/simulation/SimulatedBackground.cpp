#include "pipeline/simulation/SimulatedBackground.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

namespace vrk {
namespace {

/// Spacings of hexagonal ice in Angstrom and heights of its rings.
constexpr std::array<std::pair<double, double>, 16> kIceRings = {{{3.895, 1.00},
                                                                  {3.661, 0.55},
                                                                  {3.438, 0.57},
                                                                  {2.667, 0.25},
                                                                  {2.248, 0.44},
                                                                  {2.068, 0.34},
                                                                  {1.947, 0.03},
                                                                  {1.916, 0.15},
                                                                  {1.882, 0.06},
                                                                  {1.522, 0.09},
                                                                  {1.472, 0.05},
                                                                  {1.443, 0.03},
                                                                  {1.371, 0.06},
                                                                  {1.366, 0.03},
                                                                  {1.298, 0.03},
                                                                  {1.260, 0.06}}};
constexpr double kRingWidth = 0.006;  ///< standard deviation, 1/Angstrom
constexpr double kRingSamples = 4;    ///< per pixel

}  // namespace

SimulatedBackground::SimulatedBackground(const SimulationSettings& settings, double pixelSize)
    : m_size(settings.detector.size), m_distortion(settings.distortion, m_size) {
    const BackgroundSettings& background = settings.background;
    const double exposure = frameExposure(settings);
    const double azimuth = background.gradientAzimuth * std::numbers::pi / 180;
    m_beam = exposure * background.directBeam;
    m_halo = exposure * background.halo * 6000;
    m_gradientX = background.gradient * std::cos(azimuth) / (0.5 * m_size);
    m_gradientY = background.gradient * std::sin(azimuth) / (0.5 * m_size);
    if (background.ice > 0) setRings(exposure * background.ice, pixelSize);
}

void SimulatedBackground::setRings(double height, double pixelSize) {
    // To the far corner of the frame, seen from a centre in the other corner.
    m_rings.assign(static_cast<std::size_t>(kRingSamples * 2 * m_size) + 2, 0.0F);
    for (std::size_t i = 0; i < m_rings.size(); ++i)
        for (const auto& [spacing, relative] : kIceRings) {
            const double from =
                (static_cast<double>(i) / kRingSamples * pixelSize - 1 / spacing) / kRingWidth;
            m_rings[i] += static_cast<float>(height * relative * std::exp(-from * from / 2));
        }
}

double SimulatedBackground::ringsAt(double square) const {
    const double place = kRingSamples * std::sqrt(square);
    const auto i = static_cast<std::size_t>(place);
    if (i + 1 >= m_rings.size()) return 0;
    const double rest = place - static_cast<double>(i);
    return (1 - rest) * m_rings[i] + rest * m_rings[i + 1];
}

void SimulatedBackground::addTo(std::span<float> frame, double centreX, double centreY) const {
    const double core = 1.8 * m_size / 512;
    const double halo = m_size / 64.0;
    const bool graded = m_gradientX != 0 || m_gradientY != 0;
    for (int y = 0; y < m_size; ++y) {
        float* row = frame.data() + static_cast<std::ptrdiff_t>(y) * m_size;
        const double dy = y - centreY;
        for (int x = 0; x < m_size; ++x) {
            const double dx = x - centreX;
            const double r2 = m_distortion.isNone() ? dx * dx + dy * dy : m_distortion.idealSquare(dx, dy);
            double counts = m_halo / (1 + r2 / (halo * halo));
            if (graded) counts *= std::max(0.0, 1 + m_gradientX * dx + m_gradientY * dy);
            if (!m_rings.empty()) counts += ringsAt(r2);
            if (r2 < 60 * core * core) counts += m_beam * std::exp(-r2 / (2 * core * core));
            row[x] += static_cast<float>(counts);
        }
    }
}

}  // namespace vrk
