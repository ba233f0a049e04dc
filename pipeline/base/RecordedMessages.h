/// \file
/// Messages of the core that are told later.
#pragma once

#include <string>
#include <vector>

#include "foundation/VRKLogObserver.h"

namespace vrk {

/// Keeps what arises in its thread from beginning to end.
class RecordedMessages : public VRKLogObserver {
public:
    void begin();
    void end();
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

}  // namespace vrk
