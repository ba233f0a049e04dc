/// \file
/// What all commands share: the standard output, the log, the warnings and the progress bar.
#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "foundation/VRKLogger.h"
#include "foundation/VoxProgressObserver.h"

namespace host {

/// The one log observer. Debug traces go to the log only; warnings and errors also to the standard error
/// stream, each text once.
class LogObserver : public VRKLogObserver {
public:
    void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) override;

    /// The library's warnings so far, without repetitions.
    const std::vector<std::string>& warnings() const { return m_warnings; }
    /// The library's latest error, empty when there was none.
    const std::string& lastError() const { return m_lastError; }

    /// Keeps library warnings off the standard error stream (they still reach the log and the summary).
    bool quiet = false;
    /// Keeps library warnings in the log alone.
    bool logOnly = false;

private:
    std::vector<std::string> m_warnings;
    std::string m_lastError;
};

/// Keeps library warnings in the log alone while it lives: for stages that try what may fail.
class LogOnly {
public:
    explicit LogOnly(LogObserver& log) : m_log(log), m_before(log.logOnly) { m_log.logOnly = true; }
    ~LogOnly() { m_log.logOnly = m_before; }
    LogOnly(const LogOnly&) = delete;
    LogOnly& operator=(const LogOnly&) = delete;

private:
    LogObserver& m_log;
    bool m_before;
};

/// The one progress observer: a bar on a terminal, nothing elsewhere. Ctrl-C cancels through it.
class ProgressObserver : public VoxProgressObserver {
public:
    ProgressObserver();
    void setSteps(int steps, std::string title) override;
    void updateStep(int step) override;
    void logMessage(const char* message, Vox::MessageType type) override;

    /// Names the stage for the bar; the titles that the library announces are often blank.
    void stage(std::string name);
    /// Wipes the bar.
    void finish();

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
    LogObserver& log() { return m_log; }
    const LogObserver& log() const { return m_log; }
    ProgressObserver& progress() { return m_progress; }

    /// From here on the library's messages and narration go to this file. The first lines name the
    /// version and the command line. Throws Failure when the file cannot be written.
    void openLog(const std::filesystem::path& path, const std::vector<std::string>& headLines = {});

    /// A warning of the host's own: standard error stream, log and summary.
    void warn(const std::string& text);
    /// The host's own and the library's warnings in the order of their arrival.
    std::vector<std::string> warnings() const;

    /// Throws Failure when the user has asked to stop.
    void checkCanceled() const;

private:
    int m_stdout = -1;
    std::unique_ptr<std::streambuf> m_buffer;
    std::unique_ptr<std::ostream> m_out;
    LogObserver m_log;
    ProgressObserver m_progress;
};

}  // namespace host
