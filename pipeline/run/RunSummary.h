/// \file
/// What a run found, for programs. The keys of the JSON are an interface (docs/summary-json.md).
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pipeline/base/FileChecksum.h"
#include "pipeline/run/RunProfile.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// What a run was given.
struct RunRecord {
    std::string command;                     ///< as it was typed
    std::filesystem::path series;            ///< as the caller named it
    std::vector<RecordedFile> inputs;        ///< the series first, then further files, before they were read
    std::optional<RunProfile> profile = {};  ///< where it is wanted
};

/// The text of summary.json.
/// \param files   names of the result's files in their folder, but the summary
std::string summaryJson(const RunRecord& record, const RunResult& result,
                        const std::vector<std::string>& warnings, const std::vector<std::string>& files);

/// Throws Failure when the file cannot be written.
void writeSummary(const std::filesystem::path& path, const std::string& summary);

/// Largest resident size of the process so far, in MiB.
double peakMemory();

}  // namespace vrk
