/// \file
/// The option --max-memory.
#pragma once

#include "console/CommandLine.h"
#include "console/Host.h"

namespace vrk::app {

/// For commands whose input says how much memory they take.
/// \param host  is told the limit; without one the text is checked alone
void addMemoryOption(Command& command, Host* host);

}  // namespace vrk::app
