/// \file
/// The settings of reflection search and cell finding as command-line options, the same for every command
/// that takes them.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "cellfinding/Parameter.h"
#include "console/CommandLine.h"
#include "pipeline/run/CellOptions.h"
#include "pipeline/run/SearchOptions.h"

namespace vrk::app {

/// Adds the options to a command, with their ranges and, where \p showDefaults asks for it, with the values
/// that hold when an option is not given. The struct must live until the command line has been read.
void addSearchOptions(Command& command, SearchOptions& options, bool showDefaults);
void addCellOptions(Command& command, CellOptions& options, bool showDefaults);

/// The settings in use, under the names of the options with underscores. What is switched off is null.
nlohmann::ordered_json searchSettings(const Parameter& parameter);
nlohmann::ordered_json cellSettings(const Parameter& parameter, ClusteringMethod clustering);

}  // namespace vrk::app
