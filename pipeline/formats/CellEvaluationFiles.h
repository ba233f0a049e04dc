/// \file
/// The evidence for a cell as files.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <vector>

#include "cellfinding/CellEvaluation.h"

namespace vrk {

/// Units as in CellEvaluation; what is not known is null.
nlohmann::ordered_json toJson(const CellEvaluation& evaluation);

/// Writes the text and, beside it, the same as JSON with the extension .json. \returns both paths. Throws
/// Failure when one cannot be written, or when the text's own extension is .json.
std::vector<std::filesystem::path> writeEvaluation(const CellEvaluation& evaluation,
                                                   const std::filesystem::path& path);

}  // namespace vrk
