/// \file
/// How a command ends early: one exception, one line on the standard error stream, one exit code.
#pragma once

#include <stdexcept>
#include <string>

namespace host {

enum class ExitCode {
    Done = 0,
    Failed = 1,       ///< the input or the processing failed
    Usage = 2,        ///< the command line was wrong
    NothingFound = 3  ///< no reflections, no cell
};

/// Thrown by a command that cannot go on. The text says what was wrong, where, and what to try.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, ExitCode code = ExitCode::Failed);

    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

}  // namespace host
