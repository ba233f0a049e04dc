/// \file
/// Distortion of the patterns by the lenses.
#pragma once

#include <array>
#include <utility>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// Takes ideal places of a pattern to recorded ones, both in pixels from the pattern's centre.
///
/// The radial term comes first, p1 = p (1 + radial |p|^2 / R^2) with half the frame's width R, then the
/// ellipse: along the azimuth lengths grow by 1 + e, across it they shrink by 1 - e. In polar coordinates a
/// point moves by r e cos 2(phi - azimuth) outwards. Microscopes have ellipses of some tenths to two per
/// cent.
class PatternDistortion {
public:
    PatternDistortion(const DistortionSettings& settings, int size);

    bool isNone() const { return m_none; }
    std::pair<double, double> recorded(double x, double y) const;
    /// Square of the ideal distance from the centre of what is recorded at (x, y).
    double idealSquare(double x, double y) const;

private:
    bool m_none;
    double m_radial;  ///< 1/pixel^2
    std::array<std::array<double, 2>, 2> m_ellipse{};
    std::array<std::array<double, 2>, 2> m_inverse{};
};

}  // namespace vrk
