#include "LibraryStage.h"

#include <iostream>

#include "Failure.h"

namespace host {

std::unique_ptr<VoxMRCData> runStage(Host& host, const std::string& name,
                                     const std::function<VoxMRCData*()>& operation) {
    LogObserver& log = host.log();
    const std::size_t warningsBefore = log.warnings().size();
    // A refusal is one line on the standard error stream: that of the Failure.
    const bool quietBefore = log.quiet;
    log.quiet = true;
    host.progress().stage(name);
    std::unique_ptr<VoxMRCData> result;
    try {
        result.reset(operation());
    } catch (...) {
        log.quiet = quietBefore;
        throw;
    }
    log.quiet = quietBefore;
    host.progress().finish();
    if (!result) {
        host.checkCanceled();
        throw Failure(log.lastError());
    }
    if (!log.quiet)
        for (std::size_t i = warningsBefore; i < log.warnings().size(); ++i)
            std::cerr << "vrk: warning: " << log.warnings()[i] << '\n';
    return result;
}

}  // namespace host
