/// \file
/// The six parameters of a unit cell in JSON.
#pragma once

#include <array>

#include "crystallography/LatticeSymmetry.h"

namespace vrk {

/// What the parameters are called in every JSON and table.
inline constexpr std::array<const char*, 6> kCellNames = {"a", "b", "c", "alpha", "beta", "gamma"};

/// An object with a key for each parameter; `Json` is `nlohmann::ordered_json`.
template <typename Json>
Json cellParametersJson(const std::array<double, 6>& cell);
template <typename Json>
Json cellParametersJson(const CellParameters& cell);

/// The parameters of such an object; throws what the JSON library throws where one is missing or no number.
template <typename Json>
std::array<double, 6> cellParametersOf(const Json& json);

}  // namespace vrk
