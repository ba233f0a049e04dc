/// \file
/// Records progress reports and cancels on request, for tests of long operations.
#pragma once

#include <string>
#include <vector>

#include "foundation/VoxProgressObserver.h"

class RecordingProgressObserver : public VoxProgressObserver {
public:
    /// \param cancelAt the updateStep() call (counted from 1) at which to cancel; 0 means never
    explicit RecordingProgressObserver(std::size_t cancelAt = 0) : m_cancelAt(cancelAt) {}

    void setSteps(int steps, std::string title) override {
        VoxProgressObserver::setSteps(steps, title);
        titles.push_back(std::move(title));
    }
    void updateStep(int step) override {
        updates.push_back(step);
        if (updates.size() == m_cancelAt) cancel();
    }
    void logMessage(const char* message, Vox::MessageType type) override {
        messages.emplace_back(message);
        messageTypes.push_back(type);
    }

    std::vector<std::string> titles;
    std::vector<int> updates;
    std::vector<std::string> messages;
    std::vector<Vox::MessageType> messageTypes;

private:
    std::size_t m_cancelAt;
};
