/// \file
/// How points and point sets write numbers into log messages: the stream's default format.
#pragma once

#include <ostream>

namespace VRK::detail {

/// "x, y, z"
template <typename T>
void writeList(std::ostream& out, const T* values, int count) {
    for (int i = 0; i < count; ++i)
        out << (i ? ", " : "") << values[i];
}

}  // namespace VRK::detail
