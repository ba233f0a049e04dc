/// \file
/// The entry and exit lines of constructors and methods.
#pragma once

#include "foundation/VRKLogger.h"

namespace VRK::detail {

/// Logs \p entry now and \p exit at the end of the scope. Costs a pointer test when nobody listens.
class Trace {
public:
    Trace(const char* entry, const char* exit, VRK::DebugMessageType kind = VRK::MethodControl)
        : m_exit(exit), m_kind(kind) {
        VRKLogger::getInstance()->log(entry, VRK::Debug, kind);
    }
    ~Trace() { VRKLogger::getInstance()->log(m_exit, VRK::Debug, m_kind); }
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

private:
    const char* m_exit;
    VRK::DebugMessageType m_kind;
};

}  // namespace VRK::detail
