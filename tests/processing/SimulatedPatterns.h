/// \file
/// Patterns with a known beam centre, for tests of the preprocessing.
#pragma once

#include "support/Testing.h"

namespace simulated {

struct PatternSettings {
    int size = 256;
    double background = 6;   ///< counts far from the beam
    double halo = 900;       ///< counts of the halo at the beam
    double haloWidth = 9;    ///< pixels in which it falls to 1/e
    double slope = 0;        ///< of halo and background along x: what it adds at the edge, relative
    double beam = 20000;     ///< counts of the beam's maximum
    double beamSigma = 3.5;  ///< pixels
    double saturation = 30000;
    double spots = 400;      ///< counts of the strongest reflections
    double spotSigma = 1.1;  ///< pixels
    int beamStopWidth = 0;   ///< bar from the right edge over the beam, pixels; 0 means none
    double stopOffset = 0;   ///< by which the bar is moved along x
    double throughStop = 0;  ///< part of the counts that the bar lets through
};

/// A pattern with the beam at (cx, cy): background, halo, beam, reflections on a lattice whose opposite
/// intensities differ, beam stop, counting noise. x fastest.
inline std::vector<short> pattern(const PatternSettings& s, double cx, double cy, unsigned seed) {
    std::mt19937 random(seed);
    const auto size = static_cast<std::size_t>(s.size);
    std::vector<double> expected(size * size);
    forEachPixel(size, size, [&](std::size_t x, std::size_t y) {
        const double r = std::hypot(static_cast<double>(x) - cx, static_cast<double>(y) - cy);
        const double halo = s.background * (1.5 - r / s.size) + s.halo * std::exp(-r / s.haloWidth);
        expected[y * size + x] = halo * (1 + s.slope * (static_cast<double>(x) - cx) / (s.size / 2.0)) +
                                 s.beam * std::exp(-r * r / (2 * s.beamSigma * s.beamSigma));
    });
    std::uniform_real_distribution<double> uniform(0, 1);
    for (int h = -20; h <= 20; ++h)
        for (int k = -20; k <= 20; ++k) {
            const double px = cx + 17.3 * h + 4.1 * k;
            const double py = cy - 3.7 * h + 19.9 * k;
            // Friedel pairs have one structure factor, but the sphere passes them at different depths.
            std::mt19937 pair(static_cast<unsigned>(h * k * 1009 + h * h * 31 + k * k * 7));
            const double structure = std::pow(uniform(pair), 3);
            const double r = std::hypot(px - cx, py - cy) / s.size;
            const double intensity =
                s.spots * structure * std::exp(-8 * r * r) * (0.4 + 0.6 * uniform(random));
            if (h == 0 && k == 0) continue;
            for (int y = static_cast<int>(py) - 6; y <= static_cast<int>(py) + 6; ++y)
                for (int x = static_cast<int>(px) - 6; x <= static_cast<int>(px) + 6; ++x) {
                    if (x < 0 || y < 0 || x >= s.size || y >= s.size) continue;
                    const double r2 = (x - px) * (x - px) + (y - py) * (y - py);
                    expected[static_cast<std::size_t>(y) * size + static_cast<std::size_t>(x)] +=
                        intensity * std::exp(-r2 / (2 * s.spotSigma * s.spotSigma));
                }
        }
    std::vector<short> counts(size * size);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const double x = static_cast<double>(i % size) - s.stopOffset;
        const auto y = static_cast<double>(i / size);
        // The stop is mounted in the microscope: it does not move with the beam.
        if (s.beamStopWidth > 0 && x > s.size / 2.0 - s.beamStopWidth &&
            std::abs(y - s.size / 2.0) < s.beamStopWidth / 2.0)
            expected[i] *= s.throughStop;
        if (expected[i] == 0.0) continue;
        const double value =
            expected[i] > 50 ? std::normal_distribution<double>(expected[i], std::sqrt(expected[i]))(random)
                             : std::poisson_distribution<int>(expected[i])(random);
        counts[i] = static_cast<short>(std::min({std::round(value), s.saturation, 32767.0}));
    }
    return counts;
}

}  // namespace simulated
