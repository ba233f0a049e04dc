/// \file
/// JSON as text. Writer and parser are compiled here alone, for the one type of JSON that the pipeline and
/// the program use, `nlohmann::ordered_json`.
#pragma once

#include <string>
#include <string_view>

namespace vrk {

/// The text of a value, on one line where `indent` is -1. JSON is UTF-8 and file names may hold any bytes:
/// those that are not appear as U+FFFD.
template <typename Json>
std::string jsonText(const Json& json, int indent = -1);

/// The value of a text, discarded when it is none or nested deeper than any file of ours: copies of a value
/// go as deep on the stack as it is nested.
template <typename Json>
Json parsedJson(std::string_view text);

}  // namespace vrk
