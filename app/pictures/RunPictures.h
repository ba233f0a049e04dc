/// \file
/// The pictures that a run leaves behind.
#pragma once

#include <filesystem>
#include <string>

#include "pictures/PictureSheet.h"
#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// What the pictures of a run say of their origin.
/// \param source  name of the series
PictureNotes notesOf(const RunResult& result, const std::string& source);

/// Writes the difference vectors, the centres, three sections of the lattice and three projections of the
/// volume as PNG, and into the folder plots how well the reflections lie on the lattice; with intensities,
/// frames with predicted and observed spots, and plots of them. Throws Failure when one cannot be written.
/// \param source  name of the series
void drawRunPictures(const RunResult& result, const std::string& source, const std::filesystem::path& folder);

}  // namespace vrk::app
