/// \file
/// The camera of a simulated tilt series: what is recorded besides the reflections.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "pipeline/simulation/SimulationRandom.h"

namespace vrk {

struct DetectorSettings {
    int size = 512;           ///< pixels along x and y
    double noise = 1;         ///< 0: no noise, 1: counting statistics, n: n times their deviation
    double background = 1;    ///< factor on the halo of the direct beam and on the diffuse background
    double directBeam = 3e5;  ///< peak of the direct beam, counts
    double saturation = 30000;
    int hotPixels = 0;  ///< pixels that are bright in every frame
    int zingers = 0;    ///< pixels per frame that are bright in this frame alone
    bool beamStop = false;
    bool cross = false;  ///< three dead rows and columns in the middle of the detector
};

/// Turns expected counts into a recorded frame.
///
/// About the pattern's centre lie the direct beam, a Gaussian of 1.8 / 512 of the width, and the inelastic
/// scattering, 6000 / (1 + (r / r0)^2) counts with r0 = 1/64 of the width: some 1500 counts at a
/// thirty-second of the width, 150 at a tenth and 10 at two fifths, as hybrid-pixel cameras see it from a
/// crystal of 100 nm. Counts above the saturation are recorded as the saturation.
class SimulatedDetector {
public:
    SimulatedDetector(const DetectorSettings& settings, std::uint64_t seed);

    /// Adds direct beam and background about (centreX, centreY) to a frame of expected counts, x fastest.
    void addBackground(std::span<float> frame, double centreX, double centreY) const;
    /// Counting noise, defects, beam stop and saturation. Frame and record have size * size elements.
    void record(std::span<const float> frame, std::span<short> recorded, SimulationRandom& random) const;

private:
    double noisy(double expected, SimulationRandom& random) const;
    void markDeadPixels();

    DetectorSettings m_settings;
    std::vector<std::pair<std::size_t, double>> m_hotPixels;
    std::vector<std::size_t> m_deadPixels;
};

}  // namespace vrk
