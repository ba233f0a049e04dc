/// \file
/// The files of a run that other programs read.
#pragma once

#include <filesystem>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/run/Run.h"

namespace vrk {

/// The reflections with the indices of the conventional cell, pieces of one added up.
std::vector<IndexedReflection> conventionalReflections(const Indexed& indexed);

/// The name of a file of a further crystal: 2 and ".hkl" give crystal2.hkl.
std::string nameOfCrystal(std::size_t number, const std::string& end);
/// The same beside a file of the first: out/cell.txt and 2 give out/cell.crystal2.txt.
std::filesystem::path nameOfCrystal(const std::filesystem::path& first, std::size_t number);

/// Writes peaks.txt, cell.txt, crystal2.cell.txt ... of further crystals, centres.txt, reflections.csv,
/// cell-report.txt and cell-report.json. \returns their paths. Throws Failure when one cannot be written.
std::vector<std::filesystem::path> writeResultFiles(const RunResult& result,
                                                    const std::filesystem::path& folder, Session& session);

/// Writes the centres and the peaks that a run had when it failed, as far as there are any. Throws Failure
/// when a file cannot be written.
void writeRemains(const RunRemains& remains, const std::filesystem::path& folder);

}  // namespace vrk
