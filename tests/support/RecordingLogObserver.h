/// \file
/// Records what the logger sends, for tests that look at messages.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "foundation/VRKLogger.h"

/// Registered for as long as it lives.
class RecordingLogObserver : public VRKLogObserver {
public:
    struct Message {
        std::string text;
        VRK::MessageType type;
        VRK::DebugMessageType debugType;
        bool operator==(const Message&) const = default;
    };

    RecordingLogObserver() { VRKLogger::getInstance()->registerObserver(this); }
    ~RecordingLogObserver() override { VRKLogger::getInstance()->registerObserver(nullptr); }
    RecordingLogObserver(const RecordingLogObserver&) = delete;
    RecordingLogObserver& operator=(const RecordingLogObserver&) = delete;

    void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) override {
        messages.push_back({message, type, debugType});
    }

    /// How many messages of that kind contain the text.
    long count(const std::string& part, VRK::MessageType type) const {
        return std::count_if(messages.begin(), messages.end(), [&](const Message& m) {
            return m.type == type && m.text.find(part) != std::string::npos;
        });
    }
    bool has(const std::string& part, VRK::MessageType type) const { return count(part, type) > 0; }

    std::vector<Message> messages;
};
