/// \file
/// Text of numbers as an output stream writes them by default, without the cost of a stream.
#pragma once

#include <charconv>
#include <string>

namespace VRK::detail {

/// Appends x with six significant digits, fixed or exponent notation as needed.
inline void appendNumber(std::string& text, double x) {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, x, std::chars_format::general, 6).ptr;
    text.append(digits, end);
}

/// Appends label and number pairs: append(text, "a = ", 1.5, "  b = ", 2.0).
template <typename... Rest>
void append(std::string& text, const char* label, double x, Rest... rest) {
    text += label;
    appendNumber(text, x);
    if constexpr (sizeof...(rest) > 0) append(text, rest...);
}

}  // namespace VRK::detail
