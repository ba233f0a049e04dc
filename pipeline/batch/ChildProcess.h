/// \file
/// A process that is waited for.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace vrk {

struct ChildCommand {
    /// The program, looked for in PATH, and its arguments; no shell sees them.
    std::vector<std::string> words;
    std::filesystem::path folder = ".";  ///< in which it runs
    bool hasOwnGroup = false;            ///< what it starts is asked to stop with it
    std::filesystem::path log;           ///< receives what it writes; empty: nobody does
    /// Done instead of a program, in a copy of this process, which is loaded already; returns the exit code.
    /// This process must have one thread only.
    std::function<int()> work;
};

struct ChildEnd {
    int exitCode = 0;  ///< 128 + number of the signal where one ended it; 127 when it could not be started
    std::string lastWords;  ///< the end of its standard error stream, where it goes to no log
};

/// Starts a process and waits for it. It is asked to stop (SIGTERM) when \p canceled says so, and when this
/// process dies.
/// \param idle  called every twentieth of a second or so
ChildEnd runChild(const ChildCommand& command, const std::function<bool()>& canceled,
                  const std::function<void()>& idle = {});

/// Whether a program is there to be started.
bool isInPath(const std::string& program);

}  // namespace vrk
