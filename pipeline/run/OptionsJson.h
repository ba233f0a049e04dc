/// \file
/// The options of a run, for the summary.
#pragma once

#include <string>

#include "pipeline/run/RunOptions.h"

namespace vrk {

/// A JSON object with every option; null for what the run finds out by itself.
std::string optionsJson(const RunOptions& options);

}  // namespace vrk
