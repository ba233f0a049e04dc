/// \file
/// One operation of the core library as a stage of the pipeline.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "pipeline/base/Failure.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Runs an operation that returns new data as a plain pointer, under the given name. Throws Failure with the
/// library's reason when it returns none or throws a std::runtime_error, or when the observer stopped it.
/// Warnings are told when it has succeeded.
template <typename Operation>
auto runStage(Session& session, const std::string& name, Operation operation) {
    // A refusal is one message: that of the Failure.
    QuietLog quiet(session, QuietLog::Keep::UntilReleased);
    std::unique_ptr<std::remove_pointer_t<decltype(operation())>> result;
    try {
        const Stage stage(session, name);
        result.reset(operation());
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw Failure(error.what());
    }
    if (!result) {
        session.checkCanceled();
        throw Failure(session.lastError());
    }
    quiet.release();
    return result;
}

}  // namespace vrk
