/// \file
/// The median of a list.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace VRK::detail {

/// The middle value, the larger of the two where the list is even. Reorders the list, which must not be
/// empty.
template <typename Value>
Value medianOf(std::vector<Value>& values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace VRK::detail
