/// \file
/// Short forms for writing to the log.
#pragma once

#include <sstream>
#include <string>

#include "foundation/VRKLogger.h"

namespace VRK::detail {

inline void log(const std::string& text, MessageType type = Normal,
                DebugMessageType debugType = Information) {
    VRKLogger::getInstance()->log(text, type, debugType);
}

/// The parts of a message one after another, numbers in the streams' default format.
template <typename... Parts>
std::string line(const Parts&... parts) {
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

}  // namespace VRK::detail
