/// \file
/// Counts of spots by fitting their profiles to the frames.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/SpotMeasurement.h"
#include "pipeline/integration/SpotProfile.h"

namespace vrk {

/// Counts of a spot as its profile gives them.
struct FittedSpot {
    float counts = 0;
    float variance = 0;  ///< of the counts: of the pixels, the background and the neighbours; 0: not fitted
    float seen = 0;      ///< share of the profile on pixels that were measured, 0 to 1
};

/// Fits the profiles of all spots of a frame, each scaled by its counts, to the pixels of their discs less
/// the background. Pixels weigh with the variance of the counts that they are expected to have: background
/// plus \p expected of each spot, not what was counted, which would make weak spots too weak (W. Kabsch, Acta
/// Cryst. D 66 (2010) 133, doi:10.1107/S0907444909047374). Spots whose discs overlap are fitted together, and
/// their variances contain what they do not know of each other. Missing and saturated pixels take no part; a
/// spot of which less than half is left is not fitted.
/// \param expected  counts of each spot in all; see expectedCounts()
std::vector<FittedSpot> fitProfiles(const FrameStack& stack, const SeriesGeometry& geometry,
                                    const RadialShape& shape, const NoiseModel& noise,
                                    const ProfileSet& profiles, const SpotPrediction& prediction,
                                    std::span<const MeasuredSpot> measured, std::span<const float> expected);

}  // namespace vrk
