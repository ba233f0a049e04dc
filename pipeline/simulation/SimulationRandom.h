/// \file
/// The simulator's random numbers: the same seed gives the same series with every standard library, whose
/// distributions differ.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace vrk {

/// SplitMix64 (G. L. Steele, D. Lea, C. H. Flood, OOPSLA 2014, doi:10.1145/2660193.2660195) and the
/// distributions on top of it.
class SimulationRandom {
public:
    explicit SimulationRandom(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t next() {
        m_state += 0x9e3779b97f4a7c15ULL;
        std::uint64_t z = m_state;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    /// In [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double low, double high) { return low + (high - low) * uniform(); }
    /// In 0 ... count - 1.
    int index(int count) { return static_cast<int>(uniform() * count); }

    /// Mean 0, standard deviation 1 (Box and Muller; the second value of each pair is kept).
    double normal() {
        if (m_hasSpare) {
            m_hasSpare = false;
            return m_spare;
        }
        const double radius = std::sqrt(-2.0 * std::log(1.0 - uniform()));
        const double angle = 2.0 * std::numbers::pi * uniform();
        m_spare = radius * std::sin(angle);
        m_hasSpare = true;
        return radius * std::cos(angle);
    }

    /// A count of the given mean: by inversion where the distribution is skew, from a normal value with the
    /// first correction for skewness above.
    double poisson(double mean) {
        if (mean <= 0) return 0;
        if (mean > 16) {
            const double z = normal();
            return std::max(0.0, std::floor(mean + std::sqrt(mean) * z + (z * z - 1) / 6 + 0.5));
        }
        const double u = uniform();
        double term = std::exp(-mean);
        double sum = term;
        int count = 0;
        while (u > sum && count < 100) {
            ++count;
            term *= mean / count;
            sum += term;
        }
        return count;
    }

private:
    std::uint64_t m_state;
    double m_spare = 0;
    bool m_hasSpare = false;
};

/// One stream per purpose, so that another setting does not change the rest of the series.
enum class RandomPurpose : std::uint64_t {
    Orientation = 1,
    Intensities,
    SecondOrientation,
    Drift,
    Frames,
    Detector,
    Noise,
    Tilts,
    CentreJitter,
    MoreJumps,
    OffZone,
    Asymmetry,
    SecondIntensities
};

inline SimulationRandom randomFor(std::uint64_t seed, RandomPurpose purpose) {
    SimulationRandom mix(seed * 0x2545f4914f6cdd1dULL + static_cast<std::uint64_t>(purpose));
    return SimulationRandom(mix.next());
}

}  // namespace vrk
