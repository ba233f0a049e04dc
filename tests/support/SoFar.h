/// \file
/// Many results as one number.
#pragma once

#include <cmath>

/// A sum in which every number has a weight of its own. What it has been so far tells of a slip in any of
/// them that stays within what the truth allows.
class SoFar {
public:
    template <typename... Numbers>
    void add(Numbers... numbers) {
        ((m_sum += (1 + 0.5 * std::sin(++m_count)) * static_cast<double>(numbers)), ...);
    }
    template <typename Numbers>
    void addAll(const Numbers& numbers) {
        for (const auto number : numbers)
            add(number);
    }
    double sum() const { return m_sum; }

private:
    double m_sum = 0;
    double m_count = 0;
};
