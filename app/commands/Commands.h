/// \file
/// The subcommands of vrk. Each function adds one to the command line; its action runs when the command line
/// has been read, reports to the Host and throws Failure when it cannot go on.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "console/CommandLine.h"
#include "console/Host.h"

namespace vrk::app {

void addRunCommand(CommandLine& line, Host& host);
void addImportCommand(CommandLine& line, Host& host);
/// \param program  the whole of vrk: takes arguments and returns the exit code
void addBatchCommand(CommandLine& line, Host& host,
                     const std::function<int(const std::vector<std::string>&)>& program);
void addInfoCommand(CommandLine& line, Host& host);
void addPreprocessCommand(CommandLine& line, Host& host);
void addTiltAxisCommand(CommandLine& line, Host& host);
void addReconstructCommand(CommandLine& line, Host& host);
void addPeaksCommand(CommandLine& line, Host& host);
void addCellCommand(CommandLine& line, Host& host);
void addIndexCommand(CommandLine& line, Host& host);
void addSectionsCommand(CommandLine& line, Host& host);
void addMergeCommand(CommandLine& line, Host& host);
void addReportCommand(CommandLine& line, Host& host);
void addVerifyCommand(CommandLine& line, Host& host);
void addCellInfoCommand(CommandLine& line, Host& host);
void addSimulateCommand(CommandLine& line, Host& host);
void addCalibrateCommand(CommandLine& line, Host& host);
void addDemoCommand(CommandLine& line, Host& host);
void addCompletionCommand(CommandLine& line, Host& host);

/// \name The options of a command without its work
/// For commands that hand words to it: they are checked as it would.
/// @{
void addRunOptions(CommandLine& line);
void addImportOptions(CommandLine& line);
/// @}

}  // namespace vrk::app
