#include "pipeline/run/Levels.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <sstream>

#include "cellfinding/Parameter.h"
#include "foundation/SharedLoop.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/SearchLock.h"
#include "pipeline/run/Advice.h"
#include "reflections/FindReflexes.h"
#include "reflections/ReflexVector.h"

namespace vrk {
namespace {

/// Thresholds go up in this ratio from the noise.
constexpr double kLadderRatio = 2.0;
constexpr double kLowestThreshold = 5.0;  // standard deviations of the noise
constexpr double kHighestThreshold = 32767.0;
/// A lattice is looked for in lists of at least so many reflections.
constexpr std::size_t kFewReflections = 40;
/// More than this is noise, and would take long.
constexpr std::size_t kManyReflections = 30000;

std::vector<FoundReflection> valuesOf(const ReflexVector& found, int centreType,
                                      const ReciprocalVolume& volume) {
    std::vector<double> tilts;
    const ReflexVectorPtr positions(ReflectionPositions::fromSamples(&found, volume.sampling, &tilts));
    constexpr std::size_t kBlock = 256;
    std::vector<FoundReflection> values(found.size());
    VRK::shareItems((values.size() + kBlock - 1) / kBlock, [&](std::size_t block, std::size_t) {
        for (std::size_t i = block * kBlock; i < std::min((block + 1) * kBlock, values.size()); ++i) {
            for (int axis = 0; axis < 3; ++axis) {
                values[i].voxelCentre[axis] = found[i]->getCenter(axis, centreType);
                values[i].position[axis] = (*positions)[i]->getCenter(axis);
            }
            values[i].tilt = tilts[i];
            values[i].intensity = found[i]->getIntensity();
            values[i].cut = volume.isCut(values[i].position, values[i].tilt);
        }
    });
    return values;
}

Failure nothingFound(const RadialNoise& noise) {
    std::ostringstream text;
    text.precision(4);
    text << "no reflections were found (noise of the volume " << noise.typicalVoxelSigma() << " counts); "
         << whatToTry();
    return Failure(text.str(), FailureKind::NothingFound);
}

/// Nothing when there are more reflections than \p most.
std::optional<Level> searchLevel(FindReflexes& finder, std::size_t most, const ReciprocalVolume& volume,
                                 double threshold, const SearchOptions& options, Session& session) {
    Level level;
    level.threshold = threshold;
    // Five deviations of the halo's noise stay below the threshold.
    level.zeroBeam =
        std::max(4.0, std::min(volume.noise.haloRadius(threshold, 5.0), volume.voxels->GetWidth() / 10.0));
    Parameter parameter;
    parameter.setThreshold(threshold);
    parameter.setMinDistToZeroBeam(level.zeroBeam);
    parameter.setWhichReflectionMiddleShouldUsed(3);
    options.applyTo(parameter);
    level.zeroBeam = parameter.getCutOffZeroBeam() ? parameter.getMinDistToZeroBeam() : 0.0;
    level.minVoxels = parameter.getMinCountOfVoxel();

    finder.registerObserver(&session.progress());
    finder.setMostReflections(most);
    ReflexVectorPtr found;
    {
        const Stage stage(session, "reflections");
        const auto lock = lockSearch();
        found.reset(finder.findAllReflexes(volume.voxels.get(), &parameter, false, nullptr));
    }
    session.checkCanceled();
    if (!found) throw Failure("the reflection search failed: " + session.lastError());
    if (found->size() > most) return std::nullopt;
    level.reflections = valuesOf(*found, parameter.getWhichReflectionMiddleShouldUsed(), volume);
    return level;
}

}  // namespace

std::vector<Eigen::Vector3d> Level::positions() const {
    std::vector<Eigen::Vector3d> places;
    places.reserve(reflections.size());
    for (const FoundReflection& reflection : reflections)
        places.push_back(reflection.position);
    return places;
}

std::vector<double> Level::tilts() const {
    std::vector<double> values;
    values.reserve(reflections.size());
    for (const FoundReflection& reflection : reflections)
        values.push_back(reflection.tilt);
    return values;
}

Level searchLevel(const ReciprocalVolume& volume, double threshold, const SearchOptions& options,
                  Session& session) {
    FindReflexes finder;
    return *searchLevel(finder, std::numeric_limits<std::size_t>::max(), volume, threshold, options, session);
}

std::vector<Level> searchLevels(const ReciprocalVolume& volume, const SearchOptions& options,
                                Session& session) {
    std::vector<Level> levels;
    if (options.threshold) {
        levels.push_back(searchLevel(volume, *options.threshold, options, session));
    } else {
        const double lowest = std::max(1.0, std::round(kLowestThreshold * volume.noise.typicalVoxelSigma()));
        FindReflexes finder;
        finder.lookThrough(volume.voxels.get(), lowest);
        for (double threshold = lowest; threshold < kHighestThreshold;
             threshold = std::round(threshold * kLadderRatio)) {
            std::optional<Level> level =
                searchLevel(finder, kManyReflections, volume, threshold, options, session);
            if (!level) continue;
            const std::size_t count = level->reflections.size();
            if (count < kFewReflections && !levels.empty()) break;
            levels.push_back(std::move(*level));
        }
    }
    const bool any = std::any_of(levels.begin(), levels.end(),
                                 [](const Level& level) { return !level.reflections.empty(); });
    if (!any) throw nothingFound(volume.noise);
    return levels;
}

}  // namespace vrk
