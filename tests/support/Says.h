/// \file
/// What a text says, with the whole text where it does not.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

/// Whether a text holds all of these parts.
inline testing::AssertionResult says(const std::string& text, std::initializer_list<std::string> parts) {
    for (const std::string& part : parts)
        if (text.find(part) == std::string::npos)
            return testing::AssertionFailure() << '"' << part << "\" is not in:\n" << text;
    return testing::AssertionSuccess() << text;
}

inline testing::AssertionResult says(const std::string& text, const std::string& part) {
    return says(text, {part});
}
