/// \file
/// What the pipeline says where it refuses something.
#pragma once

#include "pipeline/base/Failure.h"
#include "support/Testing.h"

/// The text of a failure and its kind; no text where there was none.
struct Refusal {
    std::string text;
    vrk::FailureKind kind = vrk::FailureKind::Canceled;

    bool says(const std::string& part) const { return text.find(part) != std::string::npos; }
};

/// What a call ends with.
template <typename Call>
Refusal failureOf(const Call& call) {
    try {
        call();
    } catch (const vrk::Failure& failure) {
        return {failure.what(), failure.kind()};
    }
    return {};
}
