/// \file
/// The options --log and --log-level.
#pragma once

#include <string>

#include "console/CommandLine.h"

namespace vrk::app {

/// Where messages go and which.
struct LogOptions {
    std::string file;  ///< empty: nowhere
    std::string level = "info";
};

/// Adds both options.
void addLogOptions(Command& command, LogOptions& options);

/// Adds --log-level alone, for commands that always write a log.
void addLogLevelOption(Command& command, LogOptions& options);

}  // namespace vrk::app
