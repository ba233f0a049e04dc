/// \file
/// The pictures that a run leaves behind.
#pragma once

#include <filesystem>

#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// Writes the difference vectors, the centres, three sections of the lattice and three projections of the
/// volume as PNG; with intensities, frames with predicted and observed spots, and a folder plots. Throws
/// Failure when one cannot be written.
void drawRunPictures(const RunResult& result, const std::filesystem::path& folder);

}  // namespace vrk::app
