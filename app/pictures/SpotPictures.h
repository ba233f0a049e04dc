/// \file
/// Frames with the spots that the geometry puts on them.
#pragma once

#include <filesystem>
#include <vector>

#include "pictures/PictureSheet.h"
#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// Writes frame_001.png, ... (counted from 1) of a few frames spread over the series: rings where the refined
/// geometry predicts a spot, crosses where spots were observed, and an arrow along the tilt axis from the
/// direct beam. \param result  with intensities and the frames they were measured on \returns the paths.
/// Throws Failure when one cannot be written.
std::vector<std::filesystem::path> writeSpotPictures(const RunResult& result, const PictureNotes& notes,
                                                     const std::filesystem::path& folder);

}  // namespace vrk::app
