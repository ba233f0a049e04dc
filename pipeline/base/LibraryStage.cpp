#include "pipeline/base/LibraryStage.h"

#include "pipeline/base/Failure.h"

namespace vrk {

std::unique_ptr<VoxMRCData> runStage(Session& session, const std::string& name,
                                     const std::function<VoxMRCData*()>& operation) {
    // A refusal is one message: that of the Failure.
    QuietLog quiet(session, QuietLog::Keep::UntilReleased);
    std::unique_ptr<VoxMRCData> result;
    {
        const Stage stage(session, name);
        result.reset(operation());
    }
    if (!result) {
        session.checkCanceled();
        throw Failure(session.lastError());
    }
    quiet.release();
    return result;
}

}  // namespace vrk
