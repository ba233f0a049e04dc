/// \file
/// One step of the pipeline as a command runs it.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Host.h"
#include "VoxCore/DataModel/VoxMRCData.h"

namespace host {

/// Runs a library operation that returns new data, under the given name for the progress bar. Throws Failure
/// with the library's reason when there is none, or when the user stopped it. Warnings go to the standard
/// error stream.
std::unique_ptr<VoxMRCData> runStage(Host& host, const std::string& name,
                                     const std::function<VoxMRCData*()>& operation);

}  // namespace host
