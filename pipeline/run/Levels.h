/// \file
/// The reflections of a volume at one threshold and at a ladder of them.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/run/ReciprocalVolume.h"
#include "pipeline/run/SearchOptions.h"

namespace vrk {

struct FoundReflection {
    Eigen::Vector3d voxelCentre;  ///< weighted centre of its voxels, voxels
    Eigen::Vector3d position;     ///< place of its samples (ReflectionPositions), voxels
    double tilt = 0.0;            ///< at which it was seen, radians
    double intensity = 0.0;       ///< sum of its voxels
    bool cut = false;  ///< its spots touched what was not recorded: frame border, stop, detector cross
};

/// The reflections that one threshold gives.
struct Level {
    double threshold = 0.0;
    double zeroBeam = 0.0;  ///< radius that was cut off around the direct beam, voxels
    int minVoxels = 0;
    std::vector<FoundReflection> reflections;

    std::vector<Eigen::Vector3d> positions() const;
    std::vector<double> tilts() const;
};

/// \param threshold  counts; halo noise of five deviations stays below it outside of the zero beam
Level searchLevel(const ReciprocalVolume& volume, double threshold, const SearchOptions& options,
                  Session& session);

/// Levels by rising threshold. Thresholds double from five deviations of the noise; levels with more
/// reflections than a crystal has are left out, and the ladder ends where hardly any are left. A threshold in
/// the options gives one level. Throws Failure (NothingFound) when no level has reflections.
std::vector<Level> searchLevels(const ReciprocalVolume& volume, const SearchOptions& options,
                                Session& session);

}  // namespace vrk
