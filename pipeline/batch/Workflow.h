/// \file
/// A plan as an engine for workflows runs it.
#pragma once

#include <string>
#include <vector>

#include "pipeline/batch/BatchFolder.h"
#include "pipeline/batch/BatchPlan.h"

namespace vrk {

/// Where and how jobs run.
struct EngineSettings {
    std::string program;  ///< vrk
    int jobs = 0;         ///< at once; 0: as many as there are cores, with Slurm as many as it lets run
    int memory = 0;       ///< MiB of all jobs at once; 0: that of the machine
    bool slurm = false;
    std::string partition;  ///< of Slurm; empty: its default
    std::string account;    ///< of Slurm; empty: its default
    int arraySize = 1000;   ///< jobs of a Slurm array
};

/// Jobs that the engine sees as one: a few in a row, with Slurm an array.
struct WorkUnit {
    JobNeeds needs;
    std::vector<std::string> jobs;
};

/// Locally a unit has up to four jobs, and one as the end comes near, so that all workers end together; of
/// more than eight thousand jobs there are two thousand units. With Slurm jobs with the same needs make
/// arrays. Those that may take longest come first in the list.
std::vector<WorkUnit> unitsOf(const std::vector<JobState>& open, const EngineSettings& settings);

/// Writes jobs.txt and the folder "workflow": a Snakemake workflow over the jobs, which holds no name but
/// those of jobs. jobs.txt has a line for each, the command that does it from within the batch's folder.
/// Throws Failure when a file cannot be written.
void writeWorkflow(const std::vector<WorkUnit>& units, const EngineSettings& settings,
                   const BatchFolder& folder);

/// The command that runs the workflow in the batch's folder.
std::vector<std::string> engineCommand(const std::vector<WorkUnit>& units, const EngineSettings& settings);

/// What somebody without the engine may do.
std::string missingEngine(const EngineSettings& settings, const BatchFolder& folder);

}  // namespace vrk
