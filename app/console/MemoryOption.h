/// \file
/// The option --max-memory.
#pragma once

#include "console/CommandLine.h"
#include "console/Host.h"

namespace vrk::app {

/// For commands whose input says how much memory they take.
void addMemoryOption(Command& command, Host& host);

}  // namespace vrk::app
