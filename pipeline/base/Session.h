/// \file
/// What the stages of a run share: the messages of the core library, progress, cancellation.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/VRKLogger.h"
#include "foundation/VoxProgressObserver.h"
#include "pipeline/base/Observer.h"

namespace vrk {

/// Attaches an observer to the core library while it lives. A session belongs to the thread that makes it and
/// hears what the core says in it; while any session lives, messages reach sessions alone.
class Session {
public:
    /// \param observer  must live as long as the session
    explicit Session(Observer& observer);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// For the core's operations, which report to it and ask it whether to go on.
    VoxProgressObserver& progress() { return m_progress; }

    /// A warning of the pipeline's own.
    void warn(const std::string& text);
    /// All warnings in the order of their arrival, each text once.
    const std::vector<std::string>& warnings() const { return m_log.warnings; }
    /// The core's latest error, empty when there was none.
    const std::string& lastError() const { return m_log.lastError; }

    /// Tells the observer of the parts of the work (Observer::partBegan()).
    void beginPart(int number, int count, const std::string& name, int stages = 1);
    void endParts();
    /// Tells the observer how much of a stage is done that no operation of the core reports, 0 to 1.
    void advance(double share);

    bool canceled() const;
    /// Throws Failure (Canceled) when the observer has asked to stop.
    void checkCanceled() const;

private:
    friend class Stage;
    friend class QuietLog;

    enum class Hearing {
        Tell,   ///< the observer hears warnings at once
        Hold,   ///< warnings are kept and told when the guard is released
        Forget  ///< warnings reach the log alone
    };

    struct Log : VRKLogObserver {
        explicit Log(Observer& target) : observer(target) {}
        void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) override;

        Observer& observer;
        Hearing hearing = Hearing::Tell;
        std::vector<std::string> warnings;
        std::vector<bool> isError;  ///< of each warning
        std::string lastError;
    };
    struct Progress : VoxProgressObserver {
        explicit Progress(Observer& target) : observer(target) {}
        void updateStep(int step) override;
        void logMessage(const char* message, Vox::MessageType type) override;

        Observer& observer;
    };

    Observer& m_observer;
    Log m_log;
    Progress m_progress;
};

/// A stage of the work, from construction to destruction.
class Stage {
public:
    Stage(Session& session, const std::string& name);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

private:
    Session& m_session;
};

/// Keeps warnings from the observer while it lives.
class QuietLog {
public:
    enum class Keep {
        /// Kept, and told by release(): for stages whose refusal is one message, that of the Failure.
        UntilReleased,
        /// In the log alone: for stages that try what may fail.
        InLogAlone
    };
    QuietLog(Session& session, Keep keep);
    ~QuietLog();
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

    /// Tells what was kept and ends the silence.
    void release();

private:
    Session::Log& m_log;
    Session::Hearing m_before;
    std::size_t m_first;
};

}  // namespace vrk
