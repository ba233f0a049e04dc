/// \file
/// The counts of a series as the integration reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace vrk {

/// Views of frames, x fastest. The pixels belong to the caller.
struct FrameStack {
    /// Value of a pixel that holds no measurement in one frame.
    static constexpr short kMissing = std::numeric_limits<short>::min();

    int width = 0;
    int height = 0;
    std::vector<std::span<const short>> frames;
    std::vector<std::uint8_t> dead;  ///< by pixel: 1 without measurement in all frames; empty: none
    int saturation = 0;              ///< counts from which on a pixel is saturated; 0: not known

    std::size_t pixels() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }
};

/// How the variance of a pixel follows from its expected counts: gain * counts + floor. The gain is that of
/// the camera as it stands in the files, spread function included.
struct NoiseModel {
    double gain = 1;
    double floor = 0;  ///< square counts; negative where the counts stand on a pedestal

    double variance(double counts) const {
        const double variance = gain * counts + floor;
        return variance > kLeast * gain ? variance : kLeast * gain;
    }

    /// The counts of a pixel are whole numbers of at least this expectation.
    static constexpr double kLeast = 0.01;
};

}  // namespace vrk
