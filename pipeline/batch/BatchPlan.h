/// \file
/// The jobs of a batch: one a series.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "pipeline/batch/BatchFolder.h"
#include "pipeline/batch/JobNeeds.h"
#include "pipeline/batch/JobOptions.h"
#include "pipeline/batch/JobRecord.h"
#include "pipeline/batch/SeriesFinder.h"

namespace vrk {

/// A series that is to be run.
struct BatchJob {
    std::string name;  ///< of results and record, see BatchFolder
    FoundSeries series;
    JobOptions options;  ///< of `vrk run` and, where frames are imported first, of `vrk import`
};

/// What a plan is made of.
struct BatchInput {
    std::filesystem::path source;  ///< a folder, a list of paths, or a table with a column "series"
    JobOptions options;            ///< of all series
    std::vector<OptionKind> kinds;
};

/// The series of a folder, a list or a table, each with its options. A list has a path a line, or paths that
/// end with a zero byte, as `find -print0` writes them; paths are relative to its folder. A table (CSV) has a
/// column "series", may have a column "name", and columns that are called as options of `vrk run` and `vrk
/// import`; what stands there holds instead of the common option, an empty field leaves that.
/// \param warn  is told of what was left out
/// Throws Failure: Usage for options that are none and names that occur twice, NothingFound when there is no
/// series, and for files that cannot be read.
std::vector<BatchJob> planBatch(const BatchInput& input, const std::function<void(const std::string&)>& warn);

/// The arguments of `vrk import`, without program, input and output.
std::vector<std::string> importWords(const BatchJob& job, const std::vector<OptionKind>& kinds);
/// The arguments of `vrk run`, without program, series and output; with one thread where none are asked for.
std::vector<std::string> runWords(const BatchJob& job, const std::vector<OptionKind>& kinds);

/// batch.json: a line for each job, so that one is found without reading them all; with what it asks for at
/// first and its settingsKey() for the version. Throws Failure when it cannot be written.
void writePlan(const std::vector<BatchJob>& jobs, const BatchFolder& folder, const std::string& version);

/// Throws Failure when there is none or it is damaged.
std::vector<BatchJob> readPlan(const BatchFolder& folder);

/// One job alone, in little memory. Throws Failure (Usage) when the plan has none of this name.
BatchJob readJob(const BatchFolder& folder, const std::string& name);

/// A job and what became of it.
struct JobState {
    BatchJob job;
    JobRecord record;  ///< Open when it is of other settings or another input
    JobNeeds needs;    ///< of the next attempt
};

/// \param version  of the program that would run them
std::vector<JobState> statesOf(const std::vector<BatchJob>& jobs, const BatchFolder& folder,
                               const std::string& version);

/// Whether it has to be run. \param again  "nothing found" is tried again as well
bool isOpen(const JobState& state, bool again);
/// Those that have to be run.
std::vector<JobState> openJobs(const std::vector<JobState>& states, bool again);

}  // namespace vrk
