/// \file
/// Where failures become results.
#pragma once

#include <exception>
#include <new>
#include <type_traits>

#include "foundation/Narration.h"
#include "pipeline/base/Observer.h"
#include "pipeline/base/Result.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// An observer that hears nothing and stops nothing.
inline Observer& silence() {
    static Observer observer;
    return observer;
}

/// Runs work that takes a Session: any stage of the pipeline, or several of them.
///
///     auto levels = vrk::attempt(observer, [&](vrk::Session& session) {
///         return vrk::searchLevels(volume, {}, session);
///     });
///
/// A Failure becomes the error, and so does any other std::exception. Nothing is written to the standard
/// output. Calls in several threads are safe as long as they share no data that one of them changes. \param
/// observer  hears of the work; its functions are called in this thread
template <typename Work>
auto attempt(Observer& observer, Work work) -> Result<std::invoke_result_t<Work, Session&>> {
    const VRK::QuietNarration quiet;
    try {
        Session session(observer);
        if constexpr (std::is_void_v<std::invoke_result_t<Work, Session&>>) {
            work(session);
            return {};
        } else {
            return work(session);
        }
    } catch (const Failure& failure) {
        return Error{failure.kind(), failure.what()};
    } catch (const std::bad_alloc&) {
        return Error{FailureKind::Failed, "there is not enough memory; use fewer or smaller frames"};
    } catch (const std::exception& error) {
        return Error{FailureKind::Failed, error.what()};
    }
}

}  // namespace vrk
