/// \file
/// What an MRC file holds and what is odd about it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace vrk {

struct SliceReport {
    short minimum = 0;
    short maximum = 0;
    double mean = 0;
    std::uint64_t saturated = 0;  ///< voxels at 32767
};

struct TiltReport {
    double first = 0;  ///< degrees, as all of these
    double last = 0;
    double step = 0;  ///< the middle one of all steps between neighbours
    double smallestStep = 0;
    double largestStep = 0;
    bool finite = true;
    bool regular = true;  ///< no step differs from the middle one by more than a tenth
};

struct FileReport {
    std::vector<SliceReport> slices;
    short minimum = 0;
    short maximum = 0;
    double mean = 0;
    std::uint64_t saturated = 0;
    std::uint64_t negative = 0;
    TiltReport tilts;  ///< of a series
    /// Every oddity in the file, one sentence each.
    std::vector<std::string> warnings;
};

/// Looks at every voxel once and at the whole header.
/// \param fileBytes the file's length
FileReport inspect(const VoxMRCData& data, std::uint64_t fileBytes);

/// The value as printf formats it with %g and that many digits.
std::string shortNumber(double value, int digits = 6);

}  // namespace vrk
