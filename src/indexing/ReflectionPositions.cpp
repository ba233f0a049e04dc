#include "indexing/ReflectionPositions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <optional>

#include "foundation/SharedLoop.h"
#include "foundation/VRKLogger.h"
#include "indexing/EwaldCurvature.h"
#include "processing/SamplingGeometry.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/ReflexVector.h"
#include "reflections/detail/VoxelGrid.h"

namespace {

using Vector3 = std::array<double, 3>;

/// A place in the volume and the tilt at which it was seen.
struct Place {
    double position[3];
    double tilt;
};

Reflex* copyAt(const double position[3], const Reflex& source) {
    ReflexPtr copy(new Reflex(position[0], position[1], position[2]));
    copy->setHKL(source.getH(), source.getK(), source.getL());
    copy->setIntensity(source.getIntensity());
    return copy.release();
}

/// The place of the tilt axis in a layer perpendicular to it; y is 0.
Vector3 centreOf(const SamplingGeometry& geometry) {
    return {0.5 * (static_cast<double>(geometry.width()) - 1.0), 0.0,
            0.5 * (static_cast<double>(geometry.depth()) - 1.0)};
}

/// The place of the samples of a voxel column, and the tilt at which they were recorded.
struct ColumnSample {
    ColumnSample(const SamplingGeometry& geometry, int column, int layer) {
        // Those below 0 lie beyond as well.
        const auto sample = geometry.sample(static_cast<unsigned>(column), static_cast<unsigned>(layer));
        if (!sample.inside()) return;
        recorded = true;
        radius = geometry.meanRadius(sample);
        tilt = geometry.meanTilt(sample);
        cosine = std::cos(tilt);
        sine = std::sin(tilt);
    }
    bool recorded = false;
    double radius = 0.0, tilt = 0.0, cosine = 0.0, sine = 0.0;
};

/// Weighted sums over the places of samples, relative to the axis.
struct SampleSums {
    double weight = 0.0;
    double x = 0.0;
    double z = 0.0;
    double tilt = 0.0;

    /// \returns false when the column was not recorded
    bool add(const ColumnSample& sample, double w) {
        if (!sample.recorded) return false;
        weight += w;
        x += w * sample.radius * sample.cosine;
        z += w * sample.radius * sample.sine;
        tilt += w * sample.tilt;
        return true;
    }
};

/// Mean place of the samples of a reflection's voxels. \returns false when none of them was sampled.
bool placeOfSamples(const ReflexOnGrid& reflex, const SamplingGeometry& geometry, Place& place) {
    const Vector3 centre = centreOf(geometry);
    SampleSums sums;
    double sumY = 0.0;
    const VRK::detail::VoxelGrid grid(reflex.getVolume());
    std::optional<ColumnSample> sample;
    int lastX = 0, lastZ = 0;
    reflex.forEachVoxel([&](int index) {
        const VRK::detail::Voxel voxel = grid.voxel(index);
        // Voxels of one column follow each other.
        if (!sample || voxel.x != lastX || voxel.z != lastZ) {
            sample.emplace(geometry, voxel.x, voxel.z);
            lastX = voxel.x;
            lastZ = voxel.z;
        }
        const short* slice = reflex.getVolume()->GetChunkPointer(static_cast<unsigned>(voxel.z));
        const double weight = std::max<double>(slice[voxel.x * grid.extentY() + voxel.y], 0.0);
        if (sums.add(*sample, weight)) sumY += weight * voxel.y;
    });
    if (!(sums.weight > 0.0)) return false;
    place.position[0] = centre[0] + sums.x / sums.weight;
    place.position[1] = sumY / sums.weight;
    place.position[2] = centre[2] + sums.z / sums.weight;
    place.tilt = sums.tilt / sums.weight;
    return true;
}

/// Moves a place in the volume by the mean distance between the voxels around it and their samples.
void moveToSamples(const SamplingGeometry& geometry, const Vector3& centre, Place& place) {
    constexpr int kReach = 2;
    // What is no number is not within it either.
    if (!(std::hypot(place.position[0], place.position[2]) < 1e6)) return;
    const int column = static_cast<int>(std::lround(place.position[0]));
    const int layer = static_cast<int>(std::lround(place.position[2]));
    SampleSums sums;
    double sumX = 0.0, sumZ = 0.0;
    for (int x = column - kReach; x <= column + kReach; ++x)
        for (int z = layer - kReach; z <= layer + kReach; ++z) {
            const double dx = x - place.position[0], dz = z - place.position[2];
            const double weight = std::exp(-0.5 * (dx * dx + dz * dz));
            if (!sums.add(ColumnSample(geometry, x, z), weight)) continue;
            sumX += weight * (x - centre[0]);
            sumZ += weight * (z - centre[2]);
        }
    if (!(sums.weight > 0.0)) return;
    place.position[0] += (sums.x - sumX) / sums.weight;
    place.position[2] += (sums.z - sumZ) / sums.weight;
    place.tilt = sums.tilt / sums.weight;
}

Place placeOfCenter(Reflex& reflex, int centerType, const double origin[3]) {
    Place place{};
    for (int axis = 0; axis < 3; ++axis)
        place.position[axis] = reflex.getCenter(axis, centerType);
    const double relative[3] = {place.position[0] - origin[0], place.position[1] - origin[1],
                                place.position[2] - origin[2]};
    place.tilt = EwaldCurvature::tiltOf(relative);
    return place;
}

template <typename PlaceOf>
ReflexVector* copyList(const ReflexVector* reflections, std::vector<double>* tilts, PlaceOf placeOf) {
    if (tilts) tilts->clear();
    if (!reflections) {
        VRKLogger::getInstance()->log("Positions cannot be corrected: there is no list of reflections.",
                                      VRK::Error, VRK::Information);
        return nullptr;
    }
    constexpr std::size_t kBlock = 64;
    std::vector<Place> places(reflections->size());
    VRK::shareItems((places.size() + kBlock - 1) / kBlock, [&](std::size_t block, std::size_t) {
        for (std::size_t i = block * kBlock; i < std::min((block + 1) * kBlock, places.size()); ++i)
            if ((*reflections)[i]) places[i] = placeOf(*(*reflections)[i]);
    });
    ReflexVectorPtr result(new ReflexVector);
    result->reserve(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        const Reflex* reflex = (*reflections)[i];
        result->push_back(reflex ? copyAt(places[i].position, *reflex) : nullptr);
        if (tilts) tilts->push_back(places[i].tilt);
    }
    return result.release();
}

}  // namespace

ReflexVector* ReflectionPositions::fromSamples(const ReflexVector* reflections,
                                               const SamplingGeometry& geometry, std::vector<double>* tilts) {
    const Vector3 centre = centreOf(geometry);
    return copyList(reflections, tilts, [&](Reflex& reflex) {
        Place place{};
        auto* onGrid = dynamic_cast<ReflexOnGrid*>(&reflex);
        const bool hasVoxels = onGrid && onGrid->getVolume();
        if (hasVoxels && placeOfSamples(*onGrid, geometry, place)) return place;
        return placeOfCenter(reflex, 3, centre.data());
    });
}

ReflexVector* ReflectionPositions::fromCenters(const ReflexVector* reflections, int centerType,
                                               const SamplingGeometry& geometry, std::vector<double>* tilts) {
    const Vector3 centre = centreOf(geometry);
    return copyList(reflections, tilts, [&](Reflex& reflex) {
        Place place = placeOfCenter(reflex, centerType, centre.data());
        moveToSamples(geometry, centre, place);
        return place;
    });
}

ReflexVector* ReflectionPositions::copies(const ReflexVector* reflections, int centerType,
                                          const double origin[3], std::vector<double>* tilts) {
    return copyList(reflections, tilts,
                    [&](Reflex& reflex) { return placeOfCenter(reflex, centerType, origin); });
}
