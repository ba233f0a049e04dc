/// \file
/// JSON as text.
#pragma once

#include <string>
#include <string_view>

namespace vrk {

/// The text of a value. JSON is UTF-8 and file names may hold any bytes: those that are not appear as U+FFFD.
template <typename Json>
std::string jsonText(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

/// The value of a text, discarded when it is none or nested deeper than any file of ours: copies of a value
/// go as deep on the stack as it is nested.
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

}  // namespace vrk
