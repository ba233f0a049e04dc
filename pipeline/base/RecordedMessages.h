/// \file
/// Messages of the core that are told later.
#pragma once

#include <string>
#include <vector>

#include "foundation/VRKLogObserver.h"

namespace vrk {

/// Keeps what arises in a thread while that records.
class RecordedMessages : public VRKLogObserver {
public:
    /// The thread that makes it records until it ends.
    class Recording;

    /// Tells them to the sessions of the calling thread, and forgets them.
    void tell();

    void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) override;

private:
    struct Message {
        std::string text;
        VRK::MessageType type;
        VRK::DebugMessageType debugType;
    };
    std::vector<Message> m_messages;
};

class RecordedMessages::Recording {
public:
    explicit Recording(RecordedMessages& messages);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

private:
    RecordedMessages& m_messages;
};

}  // namespace vrk
