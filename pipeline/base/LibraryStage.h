/// \file
/// One operation of the core library as a stage of the pipeline.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Runs an operation that returns new data, under the given name. Throws Failure with the library's reason
/// when it returns none, or when the observer stopped it. Warnings are told when it has succeeded.
std::unique_ptr<VoxMRCData> runStage(Session& session, const std::string& name,
                                     const std::function<VoxMRCData*()>& operation);

}  // namespace vrk
