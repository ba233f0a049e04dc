/// \file
/// What a caller learns while the pipeline works, and how it stops it.
#pragma once

#include <string>

#include "foundation/VRKMessageTypes.h"

namespace vrk {

/// The one observer of a session. Every function may stay as it is: then the pipeline works in silence. All
/// are called in the thread that called the pipeline.
class Observer {
public:
    virtual ~Observer() = default;

    /// A part of the work begins, one of \p count; the one before has ended. Parts that are done again, or
    /// again and again, come with the number that they had. \p stages is how many stages it usually has.
    virtual void partBegan(int /*number*/, int /*count*/, const std::string& /*name*/, int /*stages*/) {}
    /// All parts are done.
    virtual void partsEnded() {}
    /// A stage begins. Stages do not nest.
    virtual void stageBegan(const std::string& /*name*/) {}
    /// So many of the steps of the stage are done.
    virtual void progressed(int /*step*/, int /*steps*/) {}
    virtual void stageEnded() {}

    /// Something that the user should know; every text once in a session. An error that a stage met is told
    /// here only when the work goes on; otherwise the Failure tells it.
    virtual void warned(const std::string& /*text*/, bool /*isError*/) {}

    /// Every message of the core library and of the pipeline, traces included, as it comes.
    virtual void logged(const char* /*message*/, VRK::MessageType /*type*/) {}

    /// Asked at every step; true stops the work, which then ends with a Failure of the kind Canceled.
    virtual bool canceled() { return false; }
};

}  // namespace vrk
