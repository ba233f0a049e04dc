/// \file
/// How noisy a preprocessed series is, by distance from the pattern's centre.
#pragma once

#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace vrk {

/// Noise of the background of a series after preprocessing. Reflections are rare in every ring and the
/// median ignores them.
class RadialNoise {
public:
    explicit RadialNoise(const VoxMRCData& series);

    /// Standard deviation of a voxel of the volume (an average of four pixels) in the typical ring outside
    /// the halo of the direct beam, in counts.
    double typicalVoxelSigma() const { return m_typical; }
    /// The distance from which on noise stays this many standard deviations below a threshold: inside it the
    /// halo of the direct beam makes false reflections.
    double haloRadius(double threshold, double deviations) const;

private:
    std::vector<double> m_sigma;  ///< by ring of one voxel's width
    double m_typical = 0.0;
};

}  // namespace vrk
