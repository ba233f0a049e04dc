/// \file
/// What a simulated frame records besides the reflections.
#pragma once

#include <span>
#include <vector>

#include "pipeline/simulation/PatternDistortion.h"
#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// Direct beam, inelastic scattering and rings of ice about the centre of a pattern.
///
/// The direct beam is a Gaussian of 1.8 / 512 of the width. The inelastic scattering, the halo, has
/// 6000 / (1 + (r / r0)^2) counts with r0 = 1/64 of the width: some 1500 counts at a thirty-second of the
/// width, 150 at a tenth and 10 at two fifths, as hybrid-pixel cameras see it from a crystal of 100 nm. A
/// gradient multiplies it by 1 + gradient x (distance along its azimuth) / (half the width), where that is
/// positive. The rings are those of hexagonal ice, with heights as the squares of its structure factors
/// times multiplicity and d^2. Halo and rings are distorted like the spots.
class SimulatedBackground {
public:
    /// \param pixelSize 1/Angstrom
    SimulatedBackground(const SimulationSettings& settings, double pixelSize);

    /// Adds the background about (centreX, centreY) to a frame of expected counts, x fastest.
    void addTo(std::span<float> frame, double centreX, double centreY) const;

private:
    void setRings(double height, double pixelSize);
    double ringsAt(double square) const;

    int m_size;
    PatternDistortion m_distortion;
    double m_beam;  ///< counts of the direct beam's maximum
    double m_halo;  ///< counts of the halo's maximum
    double m_gradientX;
    double m_gradientY;
    std::vector<float> m_rings;  ///< counts over the distance in quarters of a pixel; empty without ice
};

}  // namespace vrk
