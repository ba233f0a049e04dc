/// \file
/// What a run found, for people.
#pragma once

#include <ostream>
#include <string>

#include "pipeline/run/RunProfile.h"
#include "pipeline/run/RunResult.h"

namespace vrk::app {

/// The short table on the standard output.
void printSummary(std::ostream& out, const RunResult& result);

/// Laue and space group with their rivals.
std::string symmetryText(const DataReduction& reduction);
/// The steps of the run against the memory of the machine.
void printProfile(std::ostream& out, const RunProfile& profile);

}  // namespace vrk::app
