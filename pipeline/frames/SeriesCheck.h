/// \file
/// What a series must be before it is processed, and what can be put right.
#pragma once

#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"

namespace vrk {

/// Returns the series in ascending order of tilt, without frames that hold nothing and without repeated
/// tilts, with a warning for everything that was changed or looks odd. Throws Failure when what is left
/// cannot give a volume: fewer than three different tilts, a range below two degrees, angles that are not
/// finite, frames without any contrast.
std::unique_ptr<VoxMRCData> checkedSeries(std::unique_ptr<VoxMRCData> series, Session& session);

}  // namespace vrk
