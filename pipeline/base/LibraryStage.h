/// \file
/// One operation of the core library as a stage of the pipeline.
#pragma once

#include <memory>
#include <string>
#include <type_traits>

#include "pipeline/base/Failure.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Runs an operation that returns new data as a plain pointer, under the given name. Throws Failure with the
/// library's reason when it returns none, or when the observer stopped it. Warnings are told when it has
/// succeeded.
template <typename Operation>
auto runStage(Session& session, const std::string& name, Operation operation) {
    // A refusal is one message: that of the Failure.
    QuietLog quiet(session, QuietLog::Keep::UntilReleased);
    std::unique_ptr<std::remove_pointer_t<decltype(operation())>> result;
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
