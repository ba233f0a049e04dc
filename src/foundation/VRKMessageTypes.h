/// \file
/// The two categories that every log message carries.
#pragma once

#include <cstdint>

namespace VRK {

/// Kind of a log message. The values are no ranking: Warning comes after Debug.
enum MessageType : std::int32_t {
    Normal = 0,
    Important = 1,
    Critical = 2,
    Error = 3,
    Debug = 4,
    Warning = 5
};

/// What a Debug message traces. Messages of every other kind carry Information.
enum DebugMessageType : std::int32_t {
    ObjectControl = 0,    ///< constructors and destructors
    MethodControl = 1,    ///< entry to and exit from methods
    LoopControl = 2,      ///< inside loops
    Test_misc = 3,        ///< miscellaneous test output
    Gui_Interaction = 4,  ///< interaction with the host
    Information = 5       ///< the default
};

}  // namespace VRK
