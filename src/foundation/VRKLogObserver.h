/// \file
/// The interface through which a host receives the library's messages.
#pragma once

#include "VRKCoreExport.h"
#include "foundation/VRKMessageTypes.h"

/// Implemented by the host and registered with VRKLogger, which never owns it.
class VRKCORE_EXPORT VRKLogObserver {
public:
    virtual ~VRKLogObserver();

    /// Receives every message unchanged, in the caller's thread; \p message is valid during the call only.
    virtual void notifyLog(const char* message, VRK::MessageType type, VRK::DebugMessageType debugType) = 0;
};
