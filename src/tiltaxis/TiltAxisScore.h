/// \file
/// What the tilt-axis search keeps of one candidate angle.
#pragma once

#include <cstdint>

/// Plain data, so that processes can hand it to each other.
struct TiltAxisScore {
    float angle = 0.0F;      ///< degrees
    bool evaluated = false;  ///< false when rotation or reconstruction failed
    double variance = 0.0;   ///< of the counts of the spherical histogram: decides the best angle
    /// The variance divided by the squared mean count: free of the number of difference vectors.
    double relativeVariance = 0.0;
    int maxValue = 0;  ///< largest count of the histogram
    /// Voxels of all reflections divided by the voxels of their bounding boxes: reflections that a wrong axis
    /// draws out to arcs fill their boxes badly. 0 when there is no volume.
    double compactness = 0.0;
    int reflexes = 0;              ///< that the difference vectors were formed from
    std::int64_t diffVectors = 0;  ///< in the histogram
};
