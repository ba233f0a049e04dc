/// \file
/// What all commands share: the standard output, the log, the warnings and the progress bar.
#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"

namespace vrk::app {

/// What a user sees of the work: a bar on a terminal and nothing elsewhere, warnings and errors on the
/// standard error stream, everything in the log. Ctrl-C stops it.
class ConsoleObserver : public Observer {
public:
    ConsoleObserver();
    void stageBegan(const std::string& name) override;
    void progressed(int step, int steps) override;
    void stageEnded() override;
    void warned(const std::string& text, bool isError) override;
    void logged(const char* message, VRK::MessageType type) override;
    bool canceled() override;

    /// Wipes the bar.
    void wipe();

private:
    bool m_terminal;
    std::string m_stage;
    int m_lastPercent = -1;
};

/// Exists once, from the first line of main() to the last.
///
/// Library classes narrate on the standard output. The host keeps that stream for its results: it moves
/// the real standard output aside at once and lets everything else that is written there, up to the last
/// destructor of the process, go to the log file (or nowhere, while no log is open).
class Host {
public:
    Host();
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The user's standard output.
    std::ostream& out() { return *m_out; }
    Session& session() { return m_session; }

    /// From here on the library's messages and narration go to this file. The first lines name the
    /// version and the command line. Throws Failure when the file cannot be written.
    void openLog(const std::filesystem::path& path, const std::vector<std::string>& headLines = {});

    /// A warning of the host's own: standard error stream, log and summary.
    void warn(const std::string& text) { m_session.warn(text); }
    /// The host's own and the library's warnings in the order of their arrival.
    const std::vector<std::string>& warnings() const { return m_session.warnings(); }

    /// Wipes the progress bar, so that a message has the line for itself.
    void wipeProgress() { m_observer.wipe(); }

private:
    int m_stdout = -1;
    std::unique_ptr<std::streambuf> m_buffer;
    std::unique_ptr<std::ostream> m_out;
    ConsoleObserver m_observer;
    Session m_session;
};

}  // namespace vrk::app
