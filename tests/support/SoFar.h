/// \file
/// Many results as one number.
#pragma once

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <string>

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
    /// As heavy as any other, however small or large.
    void addTame(double number) { add(std::asinh(1e3 * number)); }
    template <typename Numbers>
    void addAllTame(const Numbers& numbers) {
        for (const double number : numbers)
            addTame(number);
    }
    /// The numbers of a text and the letters between them.
    void addText(const std::string& text) {
        const auto isDigit = [](char sign) { return std::isdigit(static_cast<unsigned char>(sign)) != 0; };
        for (const char* at = text.c_str(); *at != '\0';) {
            char* end = nullptr;
            if (isDigit(*at) || (*at == '-' && isDigit(at[1])))
                addTame(std::strtod(at, &end));
            else
                add(0.01 * *at);
            at = end ? end : at + 1;
        }
    }
    double sum() const { return m_sum; }

private:
    double m_sum = 0;
    double m_count = 0;
};
