/// \file
/// The settings of a simulation in its truth file.
#pragma once

#include <nlohmann/json.hpp>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk::detail {

/// All settings but the list of tilts, under the names that the truth file explains.
nlohmann::ordered_json settingsJson(const SimulationSettings& settings);

}  // namespace vrk::detail
