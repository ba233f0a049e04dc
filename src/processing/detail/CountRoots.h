/// \file
/// Square roots of counts, whose noise is the same everywhere.
#pragma once

#include <cstddef>
#include <vector>

namespace VRK::detail {

/// sqrt(max(count, 0) + kRootOffset) - sqrt(kRootOffset), in single precision.
void rootsOf(const short* counts, std::size_t n, float* roots);

/// A pixel at a distance from a centre.
struct RootAround {
    double distance;
    float root;
};

/// By how much the ninth of the pixels that lies nearest is brighter than the farther half, by their medians;
/// 0 when there are too few. Reorders them.
double riseAmong(std::vector<RootAround>& pixels);

}  // namespace VRK::detail
