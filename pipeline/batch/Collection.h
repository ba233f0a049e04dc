/// \file
/// All results of a batch in one table and on one page.
#pragma once

#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/batch/BatchPlan.h"
#include "pipeline/batch/CrystalTable.h"
#include "pipeline/batch/InstrumentTrend.h"

namespace vrk {

struct CollectionOptions {
    double cut = CellClusterOptions().cut;  ///< strain up to which cells belong together
};

/// What a batch has come to.
struct Collection {
    std::vector<CrystalRow> rows;  ///< by name
    CellClustering clustering;     ///< of the rows with facts, in their order
    InstrumentTrend trend;
    double cut = 0.0;

    std::size_t count(JobOutcome outcome) const;
};

/// Reads the results of the plan's jobs. Of jobs whose result is of other options, or of an input that has
/// changed since, none is read.
Collection collect(const std::vector<JobState>& states, const BatchFolder& folder,
                   const CollectionOptions& options, Session& session);

/// Writes crystals.csv, crystals.json, cost.csv, batch.html and, where the series have a geometry in common,
/// instrument.json. That file stays as it is while a job of the batch is run with it.
/// Throws Failure when one cannot be written.
void writeCollection(const Collection& collection, const std::vector<JobState>& states,
                     const BatchFolder& folder);

}  // namespace vrk
