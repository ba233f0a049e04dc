/// \file
/// Frames with the spots that the geometry puts on them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <vector>

#include "pictures/PictureSheet.h"
#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// A few frames spread over the series.
std::vector<std::size_t> framesToDraw(const RunResult& result);

/// Writes the picture of a frame, as frame_001.png (counted from 1): rings where the refined geometry
/// predicts a spot, crosses where spots were observed, and an arrow along the tilt axis from the direct beam.
/// Throws Failure when it cannot be written. \param result  with intensities and the frames they were
/// measured on
void writeSpotPicture(const RunResult& result, const PictureNotes& notes, std::size_t frame,
                      const std::filesystem::path& folder);

}  // namespace vrk::app
