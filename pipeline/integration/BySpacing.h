/// \file
/// Reflections in the order of their spacings.
#pragma once

#include <algorithm>

namespace vrk {

/// A spacing to compare with others. Those of equivalents differ in their last digits, by rounding, which is
/// no order: what falls together with shells and limits would change with the processor.
inline float comparableSpacing(double spacing) {
    return static_cast<float>(spacing);
}

/// Sorts from the largest spacing to the smallest; equal ones stay in their order.
/// \param spacingOf  of an element
template <typename List, typename SpacingOf>
void sortBySpacing(List& list, SpacingOf spacingOf) {
    std::stable_sort(list.begin(), list.end(), [&](const auto& a, const auto& b) {
        return comparableSpacing(spacingOf(a)) > comparableSpacing(spacingOf(b));
    });
}

}  // namespace vrk
