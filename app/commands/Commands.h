/// \file
/// The subcommands of vrk. Each function adds one to the parser; its action runs when the command line
/// has been read, reports to the Host and throws Failure when it cannot go on.
#pragma once

#include <CLI/CLI.hpp>

#include "console/Host.h"

namespace vrk::app {

void addRunCommand(CLI::App& app, Host& host);
void addImportCommand(CLI::App& app, Host& host);
void addInfoCommand(CLI::App& app, Host& host);
void addPreprocessCommand(CLI::App& app, Host& host);
void addTiltAxisCommand(CLI::App& app, Host& host);
void addReconstructCommand(CLI::App& app, Host& host);
void addPeaksCommand(CLI::App& app, Host& host);
void addCellCommand(CLI::App& app, Host& host);
void addIndexCommand(CLI::App& app, Host& host);
void addSectionsCommand(CLI::App& app, Host& host);
void addCellInfoCommand(CLI::App& app, Host& host);
void addSimulateCommand(CLI::App& app, Host& host);
void addDemoCommand(CLI::App& app, Host& host);
void addCompletionCommand(CLI::App& app, Host& host);

}  // namespace vrk::app
