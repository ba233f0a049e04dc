/// \file
/// The track of the direct beam through a series.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "processing/PatternCentre.h"

namespace vrk::app {

/// Draws how far the centres lie from their mean, x above y, against the tilt; doubtful ones are ringed.
/// Does nothing without centres. Throws Failure when the picture cannot be written.
/// \param tilts   degrees, ascending; as many as centres
/// \param source  name of the series
void writeCentrePicture(const std::vector<double>& tilts, const std::vector<PatternCentre>& centres,
                        const std::string& source, const std::filesystem::path& path);

}  // namespace vrk::app
