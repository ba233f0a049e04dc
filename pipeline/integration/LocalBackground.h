/// \file
/// The background under a spot, from the pixels around it.
#pragma once

#include <Eigen/Core>

#include "pipeline/integration/BackgroundSums.h"
#include "pipeline/integration/FrameStack.h"

namespace vrk {

/// level + slopeX dx + slopeY dy + shape.
struct BackgroundPlane {
    double level = 0;   ///< counts at the spot's centre
    double slopeX = 0;  ///< counts per pixel
    double slopeY = 0;
    double levelVariance = 0;
    double scatter = 0;   ///< variance of the pixels about the plane, outliers limited
    int pixels = 0;       ///< that it rests on; 0: there is none
    bool tilted = false;  ///< false where too few pixels, or pixels on one side alone, allow a constant only

    double at(double dx, double dy) const { return level + slopeX * dx + slopeY * dy; }
};

/// A plane through counts by a generalised linear model of Poisson statistics with Huber's weights, as J. M.
/// Parkhurst et al., J. Appl. Cryst. 49 (2016) 1912, doi:10.1107/S1600576716013595: residuals beyond two
/// standard deviations (of the expected counts, not of the observed ones; three electrons where that is more)
/// pull no more than those at the limit, and what this takes away on average from the skew distribution of
/// counts is added back, so that the plane is right at the lowest counts too. What lies beyond three times
/// the limit takes no part.
class LocalBackground {
public:
    explicit LocalBackground(const NoiseModel& noise);

    BackgroundPlane fit(const BackgroundPixels& pixels) const;

private:
    BackgroundModel modelOf(const BackgroundPlane& plane, bool reject) const;
    double start(const BackgroundPixels& pixels) const;
    double correction(double counts) const;

    NoiseModel m_noise;
};

}  // namespace vrk
