/// \file
/// The series that the tilt-axis search evaluates in place of the one that it was given.
#pragma once

#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "reflections/ReflexVector.h"

namespace VRK::detail {

/// Value in the pattern that shall become the threshold of the reflection search, from the heights of the
/// merged spots of the series: such that about a thousand reflections of the volume reach it, or all of a
/// series that has fewer, and the noise does not. 0 without spots.
double evaluationLevel(const ReflexVector& mergedSpots);

/// A copy of the series, smoothed by a Gaussian of 0.7 pixel and multiplied by factor, limited to 16 bits.
/// Smoothing before the rounding keeps the faint counts of weak series apart; it also takes the difference in
/// sharpness between patterns that were turned by a multiple of 90 degrees, which are not interpolated, and
/// all others. Null when there is no memory.
std::unique_ptr<VoxMRCData> scaledSeries(const VoxMRCData& series, double factor);

}  // namespace VRK::detail
