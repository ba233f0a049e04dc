/// \file
/// Layers of reciprocal space for the report.
#pragma once

#include <string>

#include "pipeline/run/RunResult.h"

namespace vrk {

/// The planes hk0, h0l and 0kl and the layers parallel to them, in the frame of the crystal as
/// visualisation/ReciprocalSection.h has it, as JSON: size (pixels of the square pictures), radius (half an
/// edge, 1/Angstrom), top (counts of the brightest value), noise (counts of a voxel) and for each of planes
/// name, u, v, w (indices of the axes to the right and up, and of the step between layers) and layers with
/// level and data. A pixel is 0 where nothing was recorded and otherwise 1 + 62 ln(1 + counts / noise) /
/// ln(1 + top / noise). Inner layers come first, as many as fit into the page.
std::string sectionViews(const RunResult& result);

}  // namespace vrk
