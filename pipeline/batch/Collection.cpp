#include "pipeline/batch/Collection.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/batch/BatchPage.h"

namespace vrk {
namespace {

void replaceText(const std::string& text, const std::filesystem::path& path) {
    OutputFile file(path);
    writeText(text, file.path());
    file.commit();
}

void clusterRows(Collection& collection) {
    std::vector<CrystalCell> cells;
    std::vector<std::size_t> places;
    for (std::size_t i = 0; i < collection.rows.size(); ++i)
        if (const auto& facts = collection.rows[i].facts) {
            cells.push_back(facts->cell);
            places.push_back(i);
        }
    CellClusterOptions options;
    options.cut = collection.cut;
    collection.clustering = clusterCells(cells, options);
    const CellClustering& clustering = collection.clustering;
    for (std::size_t i = 0; i < places.size(); ++i) {
        CrystalRow& row = collection.rows[places[i]];
        row.cluster = clustering.clusterOf[i] + 1;
        row.fromMiddle = clustering.fromMiddle[i];
    }
    for (const std::size_t crystal : clustering.outliers)
        collection.rows[places[crystal]].isOutlier = true;
}

bool isRunWith(const std::vector<JobState>& states, const std::filesystem::path& file) {
    return std::any_of(states.begin(), states.end(), [&](const JobState& state) {
        const std::string* given = valueOf(state.job.options, "distortion");
        std::error_code error;
        return given && std::filesystem::equivalent(*given, file, error);
    });
}

}  // namespace

std::size_t Collection::count(JobOutcome outcome) const {
    return static_cast<std::size_t>(std::count_if(
        rows.begin(), rows.end(), [&](const CrystalRow& row) { return row.record.outcome == outcome; }));
}

Collection collect(const std::vector<JobState>& states, const BatchFolder& folder,
                   const CollectionOptions& options, Session& session) {
    const Stage stage(session, "collect the results");
    Collection collection;
    collection.cut = options.cut;
    for (std::size_t i = 0; i < states.size(); ++i) {
        const JobState& state = states[i];
        CrystalRow row{state.job.name, state.job.series.input.string(), state.record, {}, 0, 0.0, false};
        if (row.record.outcome == JobOutcome::Done) try {
                row.facts = readFacts(folder.result(row.name));
            } catch (const Failure& failure) {
                row.record.outcome = JobOutcome::Failed;
                row.record.cause = failure.what();
            }
        collection.rows.push_back(std::move(row));
        session.advance(static_cast<double>(i + 1) / static_cast<double>(states.size()));
        session.checkCanceled();
    }
    clusterRows(collection);
    collection.trend = instrumentTrend(collection.rows);
    return collection;
}

void writeCollection(const Collection& collection, const std::vector<JobState>& states,
                     const BatchFolder& folder) {
    replaceText(crystalsCsv(collection.rows), folder.path() / "crystals.csv");
    replaceText(crystalsJson(collection.rows, collection.clustering, collection.cut),
                folder.path() / "crystals.json");
    replaceText(costCsv(collection.rows), folder.path() / "cost.csv");
    if (collection.trend.common && !isRunWith(states, folder.instrument()))
        writeInstrumentFile(folder.instrument(), collection.trend.common->calibration);
    replaceText(batchPage(collection, folder), folder.path() / "batch.html");
}

}  // namespace vrk
