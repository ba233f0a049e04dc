/// \file
/// How much of the frames a volume is built of.
#pragma once

#include <optional>

#include "pipeline/base/Session.h"
#include "pipeline/run/PreparedSeries.h"

namespace vrk {

/// The series with the middle of its frames alone, where a volume of all would be larger than the core can
/// number (2^31 - 1 voxels) or than the caller wants. Frames that are too large keep the part in which spots
/// show, or what can be numbered. The choice is told as a warning.
/// \param wanted  longest edge of the volume, voxels
CentredSeries bounded(CentredSeries series, std::optional<int> wanted, Session& session);

/// The radius within which nearly all pixels of centred frames without background lie that stand out from
/// the noise of their ring, pixels; 0 where none does.
double radiusOfSpots(const VoxMRCData& frames);

}  // namespace vrk
