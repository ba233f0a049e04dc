/// \file
/// JSON as text.
#pragma once

#include <string>

namespace vrk {

/// The text of a value. JSON is UTF-8 and file names may hold any bytes: those that are not appear as U+FFFD.
template <typename Json>
std::string jsonText(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vrk
