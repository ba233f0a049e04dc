/// \file
/// Distortion of the patterns by the lenses.
#pragma once

#include <array>

#include "pipeline/simulation/SimulationSettings.h"
#include "processing/FrameDistortion.h"

namespace vrk {

/// Takes ideal places of a pattern to recorded ones, both in pixels from the pattern's centre.
///
/// The radial term of the settings is that at half the frame's width. In polar coordinates the ellipse moves
/// a point by r e cos 2(phi - azimuth) outwards.
class PatternDistortion {
public:
    PatternDistortion(const DistortionSettings& settings, int size);

    bool isNone() const { return m_lens.isNone(); }
    std::array<double, 2> recorded(double x, double y) const { return m_lens.recorded(x, y); }
    /// Square of the ideal distance from the centre of what is recorded at (x, y).
    double idealSquare(double x, double y) const;

private:
    FrameDistortion m_lens;
    std::array<std::array<double, 2>, 2> m_inverse{};
};

}  // namespace vrk
