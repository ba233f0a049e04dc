/// \file
/// Where the patterns showed the reflections of a peak file.
#pragma once

#include <vector>

#include "pipeline/formats/PeakList.h"

namespace vrk {

/// The places of the pixels that the reflections of a volume were made of, in voxels of the volume, with the
/// intensities of the list. \param list  positions in the volume, which the head describes
/// \param tilts  receives the tilt at which each was seen, radians
ReflexVectorPtr placesInPatterns(const ReflexVector& list, const PeakFileHead& head,
                                 std::vector<double>& tilts);

}  // namespace vrk
