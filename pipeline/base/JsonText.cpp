#include "pipeline/base/JsonText.h"

#include <nlohmann/json.hpp>

namespace vrk {

template <typename Json>
std::string jsonText(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

template <typename Json>
Json parsedJson(std::string_view text) {
    constexpr int deepest = 64;
    bool isTooDeep = false;
    const auto follow = [&](int depth, typename Json::parse_event_t, Json&) {
        isTooDeep = isTooDeep || depth > deepest;
        return !isTooDeep;
    };
    Json json = Json::parse(text, follow, false);
    return isTooDeep ? Json(Json::value_t::discarded) : json;
}

template std::string jsonText(const nlohmann::ordered_json&, int);
template nlohmann::ordered_json parsedJson<nlohmann::ordered_json>(std::string_view);

}  // namespace vrk
