/// \file
/// The median of a list.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace vrk {

/// The middle value; the larger of the two where the list is even, 0 for an empty list.
template <typename Value>
double medianOf(std::vector<Value> values) {
    if (values.empty()) return 0.0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return static_cast<double>(*middle);
}

}  // namespace vrk
