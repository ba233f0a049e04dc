/// \file
/// Plots that show how good merged crystals are.
#pragma once

#include <filesystem>

#include "pipeline/merging/CrystalMerge.h"

namespace vrk::app {

/// merging.png in the folder plots, with its gnuplot script and data: statistics by resolution, what each
/// crystal adds, delta CC1/2 and scale of every crystal.
/// \param folder  an existing one
/// \returns false when gnuplot is missing or failed; the log says so, script and data are there then.
bool writeMergePlots(const CrystalMerge& merge, const std::filesystem::path& folder);

}  // namespace vrk::app
