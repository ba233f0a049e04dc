/// \file
/// Scaled and merged intensities in summaries.
#pragma once

#include <nlohmann/json.hpp>

#include "pipeline/integration/DataReduction.h"

namespace vrk::detail {

/// Keys laue, space_groups, overall, shells, wilson and friedel_r_int, as docs/summary-json.md explains them.
nlohmann::ordered_json reductionJson(const DataReduction& reduction);

}  // namespace vrk::detail
