/// \file
/// The memory that the stages take, by the size of the series.
#pragma once

#include "VoxCore/DataModel/mrcH.h"

namespace vrk {

/// Throws Failure (requireMemory()) where there is none for the volume of a series.
/// \param copies  of the series that there are beside it, one that was read already not counted
void requireMemoryForVolume(const mrcH& series, int copies);

/// The same of the steps before the volume, by the threads that this one has; they pad frames to squares.
void requireMemoryForSeries(const mrcH& series, int copies);

}  // namespace vrk
