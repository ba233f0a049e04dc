#include "foundation/VRKLogger.h"

#include <iostream>

#include "foundation/Narration.h"

VRKLogger* VRKLogger::m_LoggerInstance = nullptr;
VRKLoggerDestroyer VRKLogger::m_destroyer;

namespace {

/// Whether the logger was made aloud; it ends as it began.
bool isAloud = true;

}  // namespace

VRKLogObserver::~VRKLogObserver() = default;

void VRKLogObservable::broadcastLog(const char* message, VRK::MessageType type,
                                    VRK::DebugMessageType debugType) {
    if (m_observer) m_observer->notifyLog(message, type, debugType);
}

VRKLoggerDestroyer::~VRKLoggerDestroyer() {
    delete m_logger;
}

VRKLogger::VRKLogger() {
    isAloud = &VRK::narration() == &std::cout;
    VRK::narration() << "  >> constructor VRKLogger\n"
                     << "  << constructor VRKLogger\n"
                     << std::flush;
}

VRKLogger::~VRKLogger() {
    m_LoggerInstance = nullptr;
    if (!isAloud) return;
    std::cout << "  >> destructor VRKLogger\n"
              << "  << destructor VRKLogger\n"
              << std::flush;
}

VRKLogger* VRKLogger::getInstance() {
    if (!m_LoggerInstance) {
        m_LoggerInstance = new VRKLogger;
        m_destroyer.SetSingleton(m_LoggerInstance);
    }
    return m_LoggerInstance;
}

void VRKLogger::log(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) {
    broadcastLog(message, type, debugType);
}

void VRKLogger::log(std::string message, VRK::MessageType type, VRK::DebugMessageType debugType) {
    broadcastLog(message.c_str(), type, debugType);
}

void VRKLogger::testAllLogMessage() {
    log("----------- Test all log message ----------------");
    log("test without type");
    log("test VRK::Normal", VRK::Normal, VRK::Information);
    log("test VRK::Important", VRK::Important, VRK::Information);
    log("test VRK::Warning", VRK::Warning, VRK::Information);
    log("test VRK::Critical", VRK::Critical, VRK::Information);
    log("test VRK::Error", VRK::Error, VRK::Information);
    log("test VRK::Debug", VRK::Debug, VRK::Information);
    log("test VRK::Debug , VRK::ObjectControl", VRK::Debug, VRK::ObjectControl);
    log("test VRK::Debug , VRK::MethodControl", VRK::Debug, VRK::MethodControl);
    log("test VRK::Debug , VRK::LoopControl", VRK::Debug, VRK::LoopControl);
    log("test VRK::Debug , VRK::Test_misc", VRK::Debug, VRK::Test_misc);
    log("test VRK::Debug , VRK::Gui_Interaction", VRK::Debug, VRK::Gui_Interaction);
    log("test VRK::Debug , VRK::Information", VRK::Debug, VRK::Information);
    log("----------- END Test all log message ----------------");
}
