/// \file
/// Whether options make sense, for callers that no command line has checked them for.
#pragma once

#include "pipeline/run/RunOptions.h"

namespace vrk {

/// Each throws Failure (usage) that names the first value that is out of its range or no number.
/// @{
void checkOptions(const RunOptions& options);
void checkOptions(const CellOptions& options);
/// @}

}  // namespace vrk
