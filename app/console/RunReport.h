/// \file
/// What a run found, for people.
#pragma once

#include <ostream>

#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// The short table on the standard output.
void printSummary(std::ostream& out, const RunResult& result);

}  // namespace vrk::app
