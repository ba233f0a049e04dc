/// \file
/// Does a job of a batch.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/batch/BatchFolder.h"
#include "pipeline/batch/JobOptions.h"
#include "pipeline/batch/JobRecord.h"

namespace vrk {

/// What all jobs of a batch have in common.
struct JobContext {
    BatchFolder folder;
    /// Does what vrk does with these arguments; \returns its exit code. Called in a process of its own.
    std::function<int(const std::vector<std::string>&)> program;
    std::string version;  ///< of it
    std::vector<OptionKind> kinds;
};

/// Runs a series of the plan in processes of its own, `vrk import` where it needs that and `vrk run`, so that
/// whatever ends these ends no more than the attempt, and writes the record of what became of it and a line
/// into the diary. A job that has its result already, with the same settings and the same input, is not run
/// again; one that another process works at is waited for. Nothing that a name or an option holds is seen by
/// a shell. Throws Failure when the plan has no such job, when records cannot be written, and (Canceled) when
/// it was stopped.
JobRecord runJob(const std::string& name, const JobContext& context, Session& session);

}  // namespace vrk
