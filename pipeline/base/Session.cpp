#include "pipeline/base/Session.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>

#include "pipeline/base/Failure.h"
#include "pipeline/base/RecordedMessages.h"

namespace vrk {
namespace {

std::string trimmed(std::string text) {
    const char* blanks = " \t\r\n";
    text.erase(0, std::min(text.find_first_not_of(blanks), text.size()));
    text.erase(text.find_last_not_of(blanks) + 1);
    return text;
}

/// The sessions of a thread, the latest first.
struct Listener {
    VRKLogObserver* log;
    Listener* before;
};
thread_local Listener* latest = nullptr;

/// The core has one observer for the process: this one hands every message to the session of the thread in
/// which it arises.
struct ThreadObserver : VRKLogObserver {
    void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) override {
        if (latest) latest->log->notifyLog(message, type, debugType);
    }
} threadObserver;

std::mutex registration;
int sessions = 0;

void beginListening(VRKLogObserver& log) {
    latest = new Listener{&log, latest};
    const std::lock_guard lock(registration);
    if (sessions++ == 0) VRKLogger::getInstance()->registerObserver(&threadObserver);
}

void endListening(VRKLogObserver& log) {
    for (Listener** place = &latest; *place; place = &(*place)->before) {
        if ((*place)->log != &log) continue;
        const Listener* ended = *place;
        *place = ended->before;
        delete ended;
        break;
    }
    const std::lock_guard lock(registration);
    if (--sessions == 0) VRKLogger::getInstance()->registerObserver(nullptr);
}

/// Fixed texts of the core's messages, and what users read in their place.
struct PlainWords {
    std::string_view beginning;
    std::string_view instead;  ///< nothing where another message says it
    bool goesOn = false;       ///< what stood behind the beginning stands there still
};
constexpr std::array<PlainWords, 5> kPlainWords = {{
    {"Byte count incorrekt!!!", ""},
    {"No fine calibration useable.", ""},
    {"Pixelsize in the Extended MRC Header is not the same!!",
     "the pixel sizes of the patterns differ, so that none of them is used; --pixel-size gives one"},
    {"The cell is not primitiv.", "the cell is centred; a primitive cell of its lattice is used"},
    {"HKL Format changed to ",
     "some intensities are too large for two decimals; the HKL file has the format ", true},
}};

std::string inPlainWords(const std::string& text) {
    for (const PlainWords& words : kPlainWords)
        if (text.starts_with(words.beginning))
            return std::string(words.instead) + (words.goesOn ? text.substr(words.beginning.size()) : "");
    return text;
}

}  // namespace

RecordedMessages::Recording::Recording(RecordedMessages& messages) : m_messages(messages) {
    beginListening(m_messages);
}

RecordedMessages::Recording::~Recording() {
    endListening(m_messages);
}

void RecordedMessages::tell() {
    for (const Message& message : m_messages)
        threadObserver.notifyLog(message.text.c_str(), message.type, message.debugType);
    m_messages.clear();
}

void RecordedMessages::notifyLog(const char* message, VRK::MessageType type,
                                 VRK::DebugMessageType debugType) {
    m_messages.push_back({message, type, debugType});
}

void Session::Log::notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType) {
    observer.logged(message, type);
    if (type != VRK::Warning && type != VRK::Error && type != VRK::Critical) return;

    std::string text = trimmed(message);
    // The kind of a message is told by its type.
    if (text.starts_with("ERROR:")) text = trimmed(text.substr(6));
    text = inPlainWords(text);
    if (text.empty()) return;
    if (type != VRK::Warning) lastError = text;
    if (hearing == Hearing::Forget && type == VRK::Warning) return;
    if (std::find(warnings.begin(), warnings.end(), text) != warnings.end()) return;
    warnings.push_back(text);
    isError.push_back(type != VRK::Warning);
    if (hearing == Hearing::Tell) observer.warned(text, type != VRK::Warning);
}

void Session::Progress::updateStep(int step) {
    if (observer.canceled()) cancel();
    observer.progressed(step, steps());
}

void Session::Progress::logMessage(const char* message, Vox::MessageType) {
    observer.logged(message, VRK::Normal);
}

Session::Session(Observer& observer) : m_observer(observer), m_log(observer), m_progress(observer) {
    beginListening(m_log);
}

Session::~Session() {
    endListening(m_log);
}

void Session::warn(const std::string& text) {
    m_log.notifyLog(text.c_str(), VRK::Warning, VRK::Information);
}

void Session::beginPart(int number, int count, const std::string& name, int stages) {
    m_observer.partBegan(number, count, name, stages);
}

void Session::endParts() {
    m_observer.partsEnded();
}

void Session::advance(double share) {
    constexpr int steps = 1000;
    m_observer.progressed(static_cast<int>(share * steps), steps);
}

bool Session::canceled() const {
    return m_progress.canceled() || m_observer.canceled();
}

void Session::checkCanceled() const {
    if (canceled()) throw Failure("stopped on request; no result was written", FailureKind::Canceled);
}

Stage::Stage(Session& session, const std::string& name) : m_session(session) {
    m_session.m_observer.stageBegan(name);
}

Stage::~Stage() {
    m_session.m_observer.stageEnded();
}

QuietLog::QuietLog(Session& session, Keep keep)
    : m_log(session.m_log), m_before(m_log.hearing), m_first(m_log.warnings.size()) {
    m_log.hearing = keep == Keep::InLogAlone ? Session::Hearing::Forget : Session::Hearing::Hold;
}

QuietLog::~QuietLog() {
    m_log.hearing = m_before;
}

void QuietLog::release() {
    m_log.hearing = m_before;
    if (m_before != Session::Hearing::Tell) return;
    for (std::size_t i = m_first; i < m_log.warnings.size(); ++i)
        m_log.observer.warned(m_log.warnings[i], m_log.isError[i]);
    m_first = m_log.warnings.size();
}

}  // namespace vrk
