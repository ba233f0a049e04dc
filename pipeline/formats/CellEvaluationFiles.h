/// \file
/// The evidence for a cell as files.
#pragma once

#include <filesystem>
#include <vector>

#include "cellfinding/CellEvaluation.h"

namespace vrk {

/// Writes the text and, beside it, the same as JSON with the extension .json, units as in CellEvaluation,
/// null for what is not known. \returns both paths. Throws Failure when one cannot be written, or when the
/// text's own extension is .json.
std::vector<std::filesystem::path> writeEvaluation(const CellEvaluation& evaluation,
                                                   const std::filesystem::path& path);

}  // namespace vrk
