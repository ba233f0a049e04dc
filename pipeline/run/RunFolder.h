/// \file
/// The results of a run, read back.
#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "pipeline/run/Calibration.h"

namespace vrk {

/// The reflections in a folder of `vrk run`: peaks.txt and summary.json. Throws Failure that names the file
/// and what it lacks, and when the run had a known geometry: its reflections do not show the instrument any
/// more.
CalibrationInput readRunFolder(const std::filesystem::path& folder);

/// What a summary.json says about a run, without the reflections.
struct RunStatement {
    CalibrationInput input;
    std::vector<float> tilts;  ///< of the patterns, degrees
};
/// \param folder  for messages
RunStatement readRunSummary(std::string_view text, const std::filesystem::path& folder);

}  // namespace vrk
