#include "pipeline/Pipeline.h"

#include <cmath>
#include <utility>

#include "pipeline/base/NumberText.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/merging/MergeFiles.h"
#include "pipeline/report/Report.h"
#include "pipeline/run/OptionCheck.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/simulation/Simulation.h"

namespace vrk {
namespace {

PeakList peakList(std::span<const Eigen::Vector3d> places, std::span<const double> intensities) {
    if (!intensities.empty() && intensities.size() != places.size())
        throw Failure(
            formatted("%zu intensities do not belong to %zu reflections", intensities.size(), places.size()),
            FailureKind::Usage);
    PeakList list;
    list.hasIntensities = !intensities.empty();
    list.reflections = ReflexVectorPtr(new ReflexVector);
    for (std::size_t i = 0; i < places.size(); ++i) {
        const Eigen::Vector3d& place = places[i];
        const double intensity = list.hasIntensities ? intensities[i] : 1.0;
        if (!place.allFinite() || !std::isfinite(intensity))
            throw Failure(formatted("reflection %zu holds what is no number", i), FailureKind::Usage);
        list.reflections->push_back(new Reflex(place.x(), place.y(), place.z()));
        list.reflections->back()->setIntensity(intensity);
    }
    return list;
}

}  // namespace

Result<TiltSeries> importSeries(const std::vector<std::filesystem::path>& files,
                                const ImportSettings& settings, Observer& observer, ImportResult* report) {
    return attempt(observer, [&](Session& session) {
        ImportSettings all = settings;
        all.files = files;
        const Stage stage(session, "import");
        ImportResult result =
            importSeries(all, &session.progress(), [&](const std::string& text) { session.warn(text); });
        session.checkCanceled();
        TiltSeries series(std::move(result.series));
        if (report) *report = std::move(result);
        return series;
    });
}

Result<RunResult> run(const TiltSeries& series, const RunOptions& options, Observer& observer,
                      const RunStages& stages) {
    return attempt(observer, [&](Session& session) {
        checkOptions(options);
        RunResult result = run(series.copy(), options, session, nullptr, stages);
        session.endParts();
        return result;
    });
}

Result<PeakCell> findCell(std::span<const Eigen::Vector3d> places, std::span<const double> intensities,
                          const PeakCellOptions& options, Observer& observer) {
    return attempt(observer, [&](Session& session) {
        checkOptions(options.cell);
        return findCell(peakList(places, intensities), options, session);
    });
}

Result<SimulatedTiltSeries> simulate(const SimulationSettings& settings, Observer& observer) {
    return attempt(observer, [&](Session& session) {
        const Stage stage(session, "simulate");
        SimulatedSeries made = simulateSeries(settings, &session.progress());
        session.checkCanceled();
        return SimulatedTiltSeries{TiltSeries(std::move(made.series)), std::move(made.truth)};
    });
}

Result<std::vector<std::filesystem::path>> writeResults(const RunResult& result,
                                                        const std::filesystem::path& folder,
                                                        const std::filesystem::path& name,
                                                        const CrystalText& text, Observer& observer) {
    return attempt(observer, [&](Session& session) {
        ResultFolder results(folder);
        writeResultFiles(result, results.path(), session);
        session.checkCanceled();
        writeIntensityFiles(result, text, "", results.path());
        session.checkCanceled();
        writeSummaryAndReport({"", name, recordFiles({name})}, result, result.warnings, results.written(),
                              true, results.path());
        std::vector<std::filesystem::path> paths;
        for (const std::string& file : results.written())
            paths.push_back(folder / file);
        results.commit();
        return paths;
    });
}

Result<void> writeReflections(const RunResult& result, ReflectionFile kind, const std::filesystem::path& path,
                              const CrystalText& text, Observer& observer) {
    return attempt(observer, [&](Session&) { writeReflectionFile(result, kind, path, text); });
}

Result<CrystalMerge> mergeCrystals(std::span<const std::filesystem::path> folders,
                                   const MergeOptions& options, Observer& observer) {
    return attempt(observer, [&](Session& session) {
        return mergeCrystals(readCrystals(folders, session), options, session);
    });
}

Result<std::vector<std::filesystem::path>> writeMergedCrystals(const CrystalMerge& merge,
                                                               const std::filesystem::path& folder,
                                                               const CrystalText& text, Observer& observer) {
    return attempt(observer, [&](Session&) {
        refuseFolderOfRun(folder);
        ResultFolder results(folder);
        writeMergedFiles(merge, text, results.path());
        writeMergeSummary(mergeJson(merge, "", {}), "", results.written(), results.path());
        std::vector<std::filesystem::path> paths;
        for (const std::string& file : results.written())
            paths.push_back(folder / file);
        results.commit();
        return paths;
    });
}

Result<void> writeReportPage(std::span<const std::filesystem::path> folders,
                             const std::filesystem::path& page, Observer& observer) {
    return attempt(observer, [&](Session&) {
        std::vector<ReportBlocks> results;
        for (const std::filesystem::path& folder : folders)
            results.push_back(readReport(folder));
        writeReport(results, page);
    });
}

}  // namespace vrk
