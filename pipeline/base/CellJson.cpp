#include "pipeline/base/CellJson.h"

#include <nlohmann/json.hpp>

namespace vrk {

template <typename Json>
Json cellParametersJson(const std::array<double, 6>& cell) {
    Json json;
    for (std::size_t i = 0; i < cell.size(); ++i)
        json[kCellNames[i]] = cell[i];
    return json;
}

template <typename Json>
Json cellParametersJson(const CellParameters& cell) {
    return cellParametersJson<Json>(std::array{cell.a, cell.b, cell.c, cell.alpha, cell.beta, cell.gamma});
}

template <typename Json>
std::array<double, 6> cellParametersOf(const Json& json) {
    std::array<double, 6> cell{};
    for (std::size_t i = 0; i < cell.size(); ++i)
        cell[i] = json.at(kCellNames[i]).template get<double>();
    return cell;
}

template nlohmann::ordered_json cellParametersJson(const std::array<double, 6>&);
template nlohmann::ordered_json cellParametersJson(const CellParameters&);
template std::array<double, 6> cellParametersOf(const nlohmann::ordered_json&);

}  // namespace vrk
