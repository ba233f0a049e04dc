/// \file
/// The voxels at which connected regions may start.
#pragma once

#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace VRK::detail {

/// The foreground voxels whose coordinates are all even or all odd, in the order in which they are tried. A
/// seed is the number (x D0 + y) D2 + z, so that ascending numbers are in the order of x, y, z.
struct RegionSeeds {
    struct Pass {
        std::vector<int> numbers;
        std::vector<short> values;  ///< of the voxels, when they are kept
    };

    /// Collects them in one pass through memory. Throws std::bad_alloc.
    RegionSeeds(const VoxMRCData& searched, int limit);
    /// Lets seeds of higher limits be told among these.
    void keepValues(const VoxMRCData& searched);

    const VoxMRCData* volume;  ///< to compare with, not to read
    int foregroundLimit;
    Pass even, odd;
};

}  // namespace VRK::detail
