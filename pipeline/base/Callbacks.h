/// \file
/// An observer made of functions.
#pragma once

#include <functional>
#include <string>

#include "pipeline/base/Observer.h"

namespace vrk {

/// For callers that want one thing or another and no class of their own. Functions may be empty.
class Callbacks : public Observer {
public:
    /// How far the work is.
    struct Progress {
        int part = 0;   ///< number of the part, from 1; 0 where the work has no parts
        int parts = 0;  ///< how many there are
        std::string name;
        double share = 0.0;  ///< of the stage that is at work, 0 to 1
    };

    std::function<void(const Progress&)> progress;
    std::function<void(const std::string&)> warning;  ///< what a user should know, each text once
    std::function<bool()> stop;                       ///< true stops the work
    /// Every line of the log, traces included.
    std::function<void(const char*, VRK::MessageType)> log;

    void partBegan(int number, int count, const std::string& name, int /*stages*/) override {
        m_now = {number, count, name, 0.0};
        tell();
    }
    void stageBegan(const std::string& name) override {
        if (m_now.part == 0) m_now.name = name;
    }
    void progressed(int step, int steps) override {
        m_now.share = steps > 0 ? static_cast<double>(step) / steps : 0.0;
        tell();
    }
    void warned(const std::string& text, bool /*isError*/) override {
        if (warning) warning(text);
    }
    void logged(const char* message, VRK::MessageType type) override {
        if (log) log(message, type);
    }
    bool canceled() override { return stop && stop(); }

private:
    void tell() {
        if (progress) progress(m_now);
    }

    Progress m_now;
};

}  // namespace vrk
