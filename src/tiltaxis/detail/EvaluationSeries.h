/// \file
/// The series that the tilt-axis search evaluates in place of the one that it was given.
#pragma once

#include <memory>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "reflections/ReflexVector.h"

namespace VRK::detail {

/// Values in the pattern, falling, that may become the threshold of the reflection search, from the heights
/// of the merged spots of the series: such that from a few hundred to some thousand spots reach them, or all
/// of a series that has fewer, and its noise does not. Spots closer to the centre than the radius, which the
/// search drops, are not counted. Empty without spots.
std::vector<double> evaluationLevels(const ReflexVector& mergedSpots, double beamRadius);

/// The same from the values that shares of all pixels outside of the radius reach, once the patterns are
/// smoothed like those of scaledSeries(): for series whose spots do not stand out of the noise of single
/// patterns. Empty for a series without values above 0.
std::vector<double> brightPixelLevels(const VoxMRCData& series, double beamRadius);

/// A copy of the series, smoothed by a Gaussian of 0.7 pixel and multiplied by factor, limited to 16 bits.
/// Smoothing before the rounding keeps the faint counts of weak series apart; it also takes the difference in
/// sharpness between patterns that were turned by a multiple of 90 degrees, which are not interpolated, and
/// all others. Null when there is no memory.
std::unique_ptr<VoxMRCData> scaledSeries(const VoxMRCData& series, double factor);

}  // namespace VRK::detail
