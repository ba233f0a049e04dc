/// \file
/// The option --tilt-axis: an angle in degrees, "search" or "none".
#pragma once

#include <string>

#include "console/CommandLine.h"
#include "pipeline/run/RunOptions.h"

namespace vrk::app {

/// Adds the option to a command.
void addAxisOption(Command& command, std::string& text);

/// Sets source and angle. An empty text leaves both as they are.
void setAxis(AxisChoice& choice, const std::string& text);

}  // namespace vrk::app
