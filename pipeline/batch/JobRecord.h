/// \file
/// What became of a job.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "pipeline/batch/JobKey.h"

namespace vrk {

enum class JobOutcome {
    Open,          ///< never begun
    Started,       ///< begun and not ended: it runs, or something ended it without a word
    Done,          ///< there is a result
    NothingFound,  ///< the series shows no lattice, which is a result as well
    Failed         ///< the cause says why
};

/// "done", "nothing found" ...
const char* nameOf(JobOutcome outcome);

/// The record of the last attempt at a job.
struct JobRecord {
    JobOutcome outcome = JobOutcome::Open;
    std::string settings;  ///< settingsKey()
    std::string content;   ///< contentKey() of the input
    FileStamp stamp;       ///< of the input when its content was looked at
    std::string cause;     ///< of what has no result
    int attempts = 0;
    int unended = 0;       ///< attempts one after another that ended without a word
    double seconds = 0.0;  ///< that the last attempt took
    std::string host;      ///< on which it ran

    /// There is a result, a cell or that there is none.
    bool hasResult() const { return outcome == JobOutcome::Done || outcome == JobOutcome::NothingFound; }
};

/// Open when there is no record, or a damaged one.
JobRecord readRecord(const std::filesystem::path& path);

/// Replaces the record at once. Throws Failure when it cannot be written.
void writeRecord(const JobRecord& record, const std::filesystem::path& path);

/// Whether the record is that of this job: same settings, and the same content of the input. Where size and
/// time of the input are those of the record its content is taken to be the same; otherwise it is read.
bool isCurrent(const JobRecord& record, const std::string& settings, const std::filesystem::path& input);

}  // namespace vrk
