/// \file
/// The logging channel: every message of the library passes through one process-wide logger, which
/// hands it unchanged to the one observer that the host has registered.
#pragma once

#include <string>

#include "VRKCoreExport.h"
#include "foundation/VRKLogObserver.h"
#include "foundation/VRKMessageTypes.h"

/// Holds the one registered observer (not owned). Copies share it.
class VRKCORE_EXPORT VRKLogObservable {
public:
    /// Replaces the observer; null switches the output off. The host keeps the observer alive while it
    /// is registered.
    void registerObserver(VRKLogObserver* observer) { m_observer = observer; }

protected:
    /// Hands the message to the observer, if there is one, without filtering or formatting.
    void broadcastLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType);

private:
    VRKLogObserver* m_observer = nullptr;
};

class VRKLogger;

/// Deletes the logger when the library is unloaded.
class VRKCORE_EXPORT VRKLoggerDestroyer {
public:
    explicit VRKLoggerDestroyer(VRKLogger* logger = nullptr) : m_logger(logger) {}
    ~VRKLoggerDestroyer();
    VRKLoggerDestroyer(const VRKLoggerDestroyer&) = delete;
    VRKLoggerDestroyer& operator=(const VRKLoggerDestroyer&) = delete;

    void SetSingleton(VRKLogger* logger) { m_logger = logger; }

private:
    VRKLogger* m_logger;
};

/// The process-wide logger. Created by the first getInstance(), deleted when the library is unloaded;
/// both moments write two lines to the standard output, the only text that bypasses the observer.
/// Not guarded against concurrent first use: all calls come from the host's one calling thread.
class VRKCORE_EXPORT VRKLogger : public VRKLogObservable {
public:
    VRKLogger(const VRKLogger&) = delete;
    VRKLogger& operator=(const VRKLogger&) = delete;

    static VRKLogger* getInstance();

    void log(const char* message, VRK::MessageType type = VRK::Normal,
             VRK::DebugMessageType debugType = VRK::Information);
    void log(std::string message, VRK::MessageType type = VRK::Normal,
             VRK::DebugMessageType debugType = VRK::Information);

    /// Sends one message of every kind, so that a host can check how it shows them.
    void testAllLogMessage();

private:
    friend class VRKLoggerDestroyer;
    VRKLogger();
    ~VRKLogger();

    static VRKLogger* m_LoggerInstance;
    static VRKLoggerDestroyer m_destroyer;
};
