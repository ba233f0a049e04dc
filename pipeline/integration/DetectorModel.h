/// \file
/// What a series tells about the camera that recorded it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/integration/FrameStack.h"
#include "pipeline/integration/RadialShape.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "pipeline/integration/SpotMeasurement.h"

namespace vrk {

/// The highest count of each frame.
std::vector<short> highestCounts(std::span<const std::span<const short>> frames);

/// The count at which pixels saturate: the highest value of the series, when so many pixels have it and so
/// few come close that they must have been cut there. 0 when nothing is saturated.
int saturationOf(const FrameStack& stack);

/// Pixels (1) that show one value in all of at least five frames, where the background makes that
/// impossible: dead rows, a beam stop, padding. Empty when there are none.
std::vector<std::uint8_t> deadPixels(const FrameStack& stack, std::span<const FramePose> poses,
                                     const RadialShape& shape);

/// The variance of the background over its mean, roughly: the median of blocks of 16 x 16 pixels of six
/// frames, about planes, outliers cut.
double roughGain(const FrameStack& stack);

/// Gain and floor from the rings about measured spots, which no spot disturbs: the medians of their variances
/// against their brightness lie on a straight line. A floor is taken up only where it matters. The start
/// where there are too few spots.
NoiseModel noiseOfRings(std::span<const MeasuredSpot> measured, const NoiseModel& start);

}  // namespace vrk
