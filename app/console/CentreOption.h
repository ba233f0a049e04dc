/// \file
/// The option --centre: two coordinates, a file or "none".
#pragma once

#include <string>

#include "console/CommandLine.h"
#include "pipeline/run/RunOptions.h"

namespace vrk::app {

/// Adds the option to a command.
void addCentreOption(Command& command, std::string& text);

/// Sets source and place. An empty text leaves both as they are; two numbers with a comma are coordinates,
/// everything else the name of a file.
void setCentre(CentreChoice& choice, const std::string& text);

}  // namespace vrk::app
