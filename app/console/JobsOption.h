/// \file
/// The option --jobs.
#pragma once

#include "console/CommandLine.h"

namespace vrk::app {

/// Adds it. 0, the value that stays when it is not given: all cores (pipeline/base/Workers.h).
void addJobsOption(Command& command, int& jobs);

}  // namespace vrk::app
