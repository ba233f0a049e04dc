/// \file
/// The page that shows a result: report.html.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "pipeline/report/ReportPage.h"
#include "pipeline/run/RunResult.h"
#include "pipeline/run/RunSummary.h"

namespace vrk {

inline constexpr const char* kReportFile = "report.html";
inline constexpr const char* kReflectionFile = "reflections.csv";

/// What no file of a result holds: the blocks "sections", "patterns" and "curves", which are made of the
/// volume and of the frames.
ReportBlocks reportViews(const RunResult& result);

/// The blocks of a result: summary.json and cell-report.json as they are, the columns of reflections.csv, and
/// the views.
/// \param summary  the text of summary.json
/// \param views    of reportViews()
/// Throws Failure when a file of the folder is damaged.
ReportBlocks reportBlocks(const std::filesystem::path& folder, const std::string& summary,
                          ReportBlocks views);

/// Writes the last files of a run, report.html and summary.json. \returns the text of the summary
/// \param files      names of the files that are there
/// \param withViews  the page has sections and patterns
/// Throws Failure when one cannot be written.
std::string writeSummaryAndReport(const RunRecord& record, const RunResult& result,
                                  const std::vector<std::string>& warnings, std::vector<std::string> files,
                                  bool withViews, const std::filesystem::path& folder);

/// The blocks of a folder that a run left; its views come from the page in it.
/// Throws Failure when the folder holds no result or a damaged one.
ReportBlocks readReport(const std::filesystem::path& folder);

/// Of several results, the patterns are left out of the page. Throws Failure when it cannot be written.
void writeReport(std::span<const ReportBlocks> results, const std::filesystem::path& path);

}  // namespace vrk
