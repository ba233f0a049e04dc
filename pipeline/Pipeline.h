/// \file
/// The pipeline for programs that link it: a series in, cell, reflections and intensities out.
///
///     #include "pipeline/Pipeline.h"
///
///     const auto series = vrk::TiltSeries::read("series.mrc");
///     if (!series) return tell(series.error().text);
///     const auto result = vrk::run(*series);
///
/// Two kinds of functions, told apart by what they take:
///
/// - those with an Observer, here and in TiltSeries, throw nothing and return a Result;
/// - the stages behind them take a Session and throw Failure. attempt() makes a Session and turns their
/// failures
///   into results.
///
/// Nothing is written to the standard output, no state is kept between calls, and calls may be made in
/// several threads at a time.
#pragma once

#include <Eigen/Core>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "pipeline/base/Attempt.h"
#include "pipeline/base/Callbacks.h"
#include "pipeline/frames/SeriesImport.h"
#include "pipeline/frames/TiltSeries.h"
#include "pipeline/merging/CrystalMerge.h"
#include "pipeline/run/IntensityFiles.h"
#include "pipeline/run/PeakCell.h"
#include "pipeline/run/ResultTables.h"
#include "pipeline/run/Run.h"
#include "pipeline/simulation/SimulationTruth.h"

namespace vrk {

/// A series of frames in files: of any format, folders, lists that name frames.
/// \param settings  its files are ignored
/// \param report    receives what became of the frames, without the series; may be null
Result<TiltSeries> importSeries(const std::vector<std::filesystem::path>& files,
                                const ImportSettings& settings = {}, Observer& observer = silence(),
                                ImportResult* report = nullptr);

/// The whole way from a series to cell and intensities, as `vrk run` does it.
/// \param stages  what does the work
Result<RunResult> run(const TiltSeries& series, const RunOptions& options = {},
                      Observer& observer = silence(), const RunStages& stages = {});

/// The cell of a list of reflections, as `vrk cell` finds it.
/// \param places       from the origin of reciprocal space, voxels
/// \param intensities  as many, or none
Result<PeakCell> findCell(std::span<const Eigen::Vector3d> places, std::span<const double> intensities,
                          const PeakCellOptions& options = {}, Observer& observer = silence());

struct SimulatedTiltSeries {
    TiltSeries series;
    SimulationTruth truth;
};

/// A made-up series, as `vrk simulate` writes it.
Result<SimulatedTiltSeries> simulate(const SimulationSettings& settings, Observer& observer = silence());

/// All files that `vrk run` writes, but pictures and log: reflections for solution and refinement, peaks,
/// cells, centres, the page and summary.json. They replace those of an earlier run together.
/// \param folder  made when it is not there
/// \param name    of the series, for the summary
/// \returns the paths
Result<std::vector<std::filesystem::path>> writeResults(const RunResult& result,
                                                        const std::filesystem::path& folder,
                                                        const std::filesystem::path& name = {},
                                                        const CrystalText& text = {},
                                                        Observer& observer = silence());

/// One of the files for solution and refinement. An error for a kind that needs intensities measured on the
/// frames where there are none.
Result<void> writeReflections(const RunResult& result, ReflectionFile kind, const std::filesystem::path& path,
                              const CrystalText& text = {}, Observer& observer = silence());

/// The crystals of several results in one data set, as `vrk merge` makes it.
/// \param folders  of writeResults() or `vrk run`, with intensities measured on the frames
Result<CrystalMerge> mergeCrystals(std::span<const std::filesystem::path> folders,
                                   const MergeOptions& options = {}, Observer& observer = silence());

/// All files that `vrk merge` writes, but pictures and log. They replace those of an earlier one together.
/// \returns the paths
Result<std::vector<std::filesystem::path>> writeMergedCrystals(const CrystalMerge& merge,
                                                               const std::filesystem::path& folder,
                                                               const CrystalText& text = {},
                                                               Observer& observer = silence());

/// The page of a result again, or one that compares several, as `vrk report` makes it.
/// \param folders  of writeResults() or `vrk run`
/// \param page     the file to write
Result<void> writeReportPage(std::span<const std::filesystem::path> folders,
                             const std::filesystem::path& page, Observer& observer = silence());

}  // namespace vrk
