/// \file
/// What a run found, for people and for programs. The keys of the JSON are an interface
/// (docs/summary-json.md).
#pragma once

#include <nlohmann/json.hpp>
#include <ostream>

#include "RunPipeline.h"

namespace host {

nlohmann::ordered_json summaryJson(const RunOptions& options, const RunResult& result, const Host& host);

/// The short table on the standard output.
void printSummary(std::ostream& out, const RunResult& result);

/// Largest resident size of the process so far, in MiB.
double peakMemory();

}  // namespace host
