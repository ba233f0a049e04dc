#include "pipeline/run/RadialNoise.h"

#include <algorithm>
#include <cmath>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Median.h"

namespace vrk {
namespace {

/// So many patterns tell the noise.
constexpr unsigned kSamples = 16;
/// Averaging four pixels, two of them neighbours and all interpolated before, leaves about this much.
constexpr double kAverage = 0.55;
/// A count of whole numbers is never sharper than that.
constexpr double kLeast = 0.4;

}  // namespace

RadialNoise::RadialNoise(const VoxMRCData& series) {
    const unsigned width = series.GetWidth();
    const unsigned height = series.GetHeight();
    const unsigned depth = series.GetDepth();
    const double centreX = 0.5 * (width - 1.0);
    const double centreY = 0.5 * (height - 1.0);
    const auto rings = static_cast<std::size_t>(std::min(centreX, centreY)) + 1;
    using Deviations = std::vector<std::vector<short>>;
    const unsigned step = std::max(1u, depth / kSamples);
    std::vector<Deviations> samples((depth - step / 2 + step - 1) / step);
    VRK::shareItems(samples.size(), [&](std::size_t i, std::size_t) {
        Deviations& deviations = samples[i];
        deviations.resize(rings);
        const short* pixel = series.GetChunkPointer(step / 2 + static_cast<unsigned>(i) * step);
        for (unsigned y = 0; y < height; ++y)
            for (unsigned x = 0; x < width; ++x, ++pixel) {
                // Squares of halves are exact.
                const double u = x - centreX, v = y - centreY;
                const auto ring = static_cast<std::size_t>(std::sqrt(u * u + v * v));
                if (ring < rings) deviations[ring].push_back(static_cast<short>(std::abs(*pixel)));
            }
    });
    m_sigma.resize(rings);
    VRK::shareItems(rings, [&](std::size_t ring, std::size_t) {
        std::vector<short> all;
        for (const Deviations& deviations : samples)
            all.insert(all.end(), deviations[ring].begin(), deviations[ring].end());
        // The median deviation of a normal distribution is 0.6745 standard deviations.
        m_sigma[ring] = std::max(kLeast, kAverage * medianOf(std::move(all)) / 0.6745);
    });
    if (m_sigma.empty()) return;
    std::vector<double> outer(m_sigma.begin() + static_cast<std::ptrdiff_t>(m_sigma.size() / 4),
                              m_sigma.end());
    m_typical = medianOf(outer);
}

double RadialNoise::haloRadius(double threshold, double deviations) const {
    // Beyond half the frame it is not the halo that is noisy.
    for (std::size_t ring = m_sigma.size() / 2; ring-- > 0;)
        if (deviations * m_sigma[ring] > threshold) return static_cast<double>(ring) + 1.0;
    return 0.0;
}

}  // namespace vrk
