/// \file
/// How the pipeline ends early: one exception with one sentence.
#pragma once

#include <stdexcept>
#include <string>

namespace vrk {

enum class FailureKind {
    Failed,        ///< the input or the processing failed
    Usage,         ///< the settings contradict each other or name what is not there
    NothingFound,  ///< no reflections, no cell
    Canceled       ///< the observer asked to stop
};

/// Thrown by what cannot go on. The text says what was wrong, where, and what to try.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, FailureKind kind = FailureKind::Failed);

    FailureKind kind() const { return m_kind; }

private:
    FailureKind m_kind;
};

/// Throws Failure (usage) when the smallest of \p what is above the largest.
void refuseUnlessAscending(const std::string& what, double smallest, double largest);

}  // namespace vrk
