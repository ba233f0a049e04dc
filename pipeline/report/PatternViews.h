/// \file
/// The patterns of a series for the report, with the spots in them.
#pragma once

#include <string>

#include "pipeline/run/RunResult.h"

namespace vrk {

/// The frames, reduced until they fit into the page, with predicted and observed spots, as JSON: bin (pixels
/// along the edge of one of the picture), width and height of the pictures, axis (degrees from y), step,
/// tilts (degrees), centres (pixels of the frames as they came), frames (pictures), predicted and observed
/// spots. A pixel is 0 where nothing was recorded and otherwise 1 + 2 sqrt(counts / gain) / step, which makes
/// noise the same everywhere. Spots stand by frame: start has the number of the first spot of each frame and
/// of the end, x and y its place in sixteenths of a pixel; predicted ones have h, k, l and their crystal.
///
/// "null" without the frames.
std::string patternViews(const RunResult& result);

/// Rocking curves as JSON: the strongest reflections of the first crystal and as many drawn at random, each
/// with hkl, d, i_over_sigma, tilts (degrees), counts, sigma (null where not measured) and fitted. "null"
/// without intensities.
std::string rockingCurves(const RunResult& result);

}  // namespace vrk
