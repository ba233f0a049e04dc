/// \file
/// The option --tilt-axis: an angle in degrees, "search" or "none".
#pragma once

#include <string>

#include "pipeline/run/RunOptions.h"

namespace vrk::app {

/// What is wrong with the value of the option; empty when nothing is.
std::string axisProblem(const std::string& text);

/// Sets source and angle. An empty text leaves both as they are.
void setAxis(AxisChoice& choice, const std::string& text);

}  // namespace vrk::app
