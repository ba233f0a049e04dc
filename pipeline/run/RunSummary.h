/// \file
/// What a run found, for people and for programs. The keys of the JSON are an interface
/// (docs/summary-json.md).
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>

#include "pipeline/run/RunPipeline.h"

namespace vrk {

nlohmann::ordered_json summaryJson(const RunOptions& options, const RunResult& result,
                                   const std::vector<std::string>& warnings);

/// Throws Failure when the file cannot be written.
void writeSummary(const std::filesystem::path& path, const nlohmann::ordered_json& summary);

/// The short table on the standard output.
void printSummary(std::ostream& out, const RunResult& result);

/// Largest resident size of the process so far, in MiB.
double peakMemory();

}  // namespace vrk
