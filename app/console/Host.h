/// \file
/// What all commands share: the standard output, the log, the warnings and the progress.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "console/LogOption.h"
#include "console/ProgressLine.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/Session.h"

namespace vrk::app {

/// What the log holds: each level all that stands before it, too.
enum class LogLevel { Error, Warning, Info, Debug };

/// What a user sees of the work: how far it is, warnings and errors, all on the standard error stream, and
/// messages in the log. Ctrl-C and SIGTERM stop it.
class ConsoleObserver : public Observer {
public:
    void partBegan(int number, int count, const std::string& name, int stages) override;
    void partsEnded() override;
    void stageBegan(const std::string& name) override;
    void progressed(int step, int steps) override;
    void stageEnded() override;
    void warned(const std::string& text, bool isError) override;
    void logged(const char* message, VRK::MessageType type) override;
    bool canceled() override;

    /// Wipes the line that shows the progress.
    void wipe() { m_progress.wipe(); }
    /// Tells the library's errors in spite of which the work went on.
    void tellErrors();

    /// Messages go to this file. Throws Failure when it cannot be written.
    void openLog(const std::filesystem::path& path, LogLevel level);
    void closeLog() { m_log.close(); }
    /// A line at the beginning of the log, whatever its level.
    void writeHead(const std::string& line) { m_log << line << std::endl; }

private:
    ProgressLine m_progress;
    std::ofstream m_log;
    LogLevel m_level = LogLevel::Info;
    std::vector<std::string> m_errors;
};

/// Exists once in a process, from the first line of main() to the last; a job of a batch has one of its own,
/// in a copy of the process.
///
/// Library classes narrate on the standard output. The host keeps that stream for its results: it moves
/// the real standard output aside at once and lets everything else that is written there, up to the last
/// destructor of the process, go to a log with every step, and nowhere otherwise.
class Host {
public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The user's standard output.
    std::ostream& out() { return *m_out; }
    /// The width of the window that it goes to; 0: not known.
    int columns() const;
    Session& session() { return m_session; }

    /// From here on messages of this level go to this file. The first lines name the version and what else
    /// is given. Throws Failure when the file cannot be written.
    /// \param level  "error", "warning", "info" or "debug"
    void openLog(const std::filesystem::path& path, const std::string& level,
                 const std::vector<std::string>& headLines = {});
    /// The same for the log that was asked for, if any.
    void openLog(const LogOptions& options);
    /// Nothing is written to the log any more.
    void closeLog();

    /// Memory that the process may take: input that needs more is refused, and what asks for more all the
    /// same gets std::bad_alloc. Four fifths of what is free when the host is made.
    void limitMemory(std::uint64_t bytes);
    /// What to tell when it was not enough.
    std::string outOfMemory() const;

    /// A warning of the host's own: standard error stream, log and summary.
    void warn(const std::string& text) { m_session.warn(text); }
    /// The host's own and the library's warnings in the order of their arrival.
    const std::vector<std::string>& warnings() const { return m_session.warnings(); }

    /// Wipes the progress, so that a message has the line for itself.
    void wipeProgress() { m_observer.wipe(); }
    /// The signal that asked to stop: SIGINT, SIGTERM or SIGHUP; 0: none.
    static int stopSignal();
    /// Called when the command has done its work.
    void done() { m_observer.tellErrors(); }

private:
    int m_stdout = -1;
    std::unique_ptr<std::streambuf> m_buffer;
    std::unique_ptr<std::ostream> m_out;
    std::optional<MemoryLimit> m_memory;
    std::uint64_t m_mostMemory = 0;
    ConsoleObserver m_observer;
    Session m_session;
};

}  // namespace vrk::app
