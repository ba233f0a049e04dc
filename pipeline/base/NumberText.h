/// \file
/// Numbers as people and crystallographic files write them.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace vrk {

/// A value with its standard uncertainty in units of the last digit, as "7.1234(12)": the uncertainty has one
/// digit, or two up to 19. Without a positive, finite uncertainty six significant digits.
std::string withUncertainty(double value, double sigma);

/// A pixel size in the unit of the field and in that of the files: "0.00838 1/Angstrom (8.38e+07 1/m)".
std::string pixelSizeText(double perMetre);

/// A text of printf(), as long as it comes. The format is the caller's own, never a user's.
template <typename... Values>
std::string formatted(const char* format, Values... values) {
    const int length = std::snprintf(nullptr, 0, format, values...);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::snprintf(text.data(), text.size() + 1, format, values...);
    return text;
}

}  // namespace vrk
