/// \file
/// The files of merged crystals.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pipeline/merging/CrystalMerge.h"
#include "pipeline/run/IntensityFiles.h"

namespace vrk {

/// Writes
///
/// - merged.hkl: HKLF 4, merged in the Laue group;
/// - reflections.hkl and crystal.ins: HKLF 4, scaled, not merged, and the instructions;
/// - merged.mtz, merged.cif: in the space group that the absences leave first;
/// - crystals.csv: a line for each crystal with its scale, agreement and part.
///
/// Throws Failure when one cannot be written. \returns their paths
std::vector<std::filesystem::path> writeMergedFiles(const CrystalMerge& merge, const CrystalText& text,
                                                    const std::filesystem::path& folder);

/// Throws Failure (usage) when the folder holds the result of a run, which merging is not to replace.
void refuseFolderOfRun(const std::filesystem::path& folder);

/// The text of merge.json: cells and their tree, crystals, and the data set with the keys of summary.json.
std::string mergeJson(const CrystalMerge& merge, const std::string& command,
                      const std::vector<std::string>& warnings);

/// Writes merge.json, and the summary that makes a folder one of results (ResultFolder): what made it and
/// the files in it. \param files  names of what was written before
void writeMergeSummary(const std::string& json, const std::string& command, std::vector<std::string> files,
                       const std::filesystem::path& folder);

}  // namespace vrk
