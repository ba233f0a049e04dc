#include "indexing/ReflectionPositions.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>

#include "foundation/VRKLogger.h"
#include "indexing/EwaldCurvature.h"
#include "processing/SamplingGeometry.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/ReflexVector.h"
#include "reflections/VolumeMath.h"

namespace {

/// A place in the volume and the tilt at which it was seen.
struct Place {
    double position[3];
    double tilt;
};

Reflex* copyAt(const double position[3], const Reflex& source) {
    auto copy = std::make_unique<Reflex>(position[0], position[1], position[2]);
    copy->setHKL(source.getH(), source.getK(), source.getL());
    copy->setIntensity(source.getIntensity());
    return copy.release();
}

/// Mean place of the samples of a reflection's voxels. \returns false when none of them was sampled.
bool placeOfSamples(ReflexOnGrid& reflex, const SamplingGeometry& geometry, Place& place) {
    const double centreX = 0.5 * (static_cast<double>(geometry.width()) - 1.0);
    const double centreZ = 0.5 * (static_cast<double>(geometry.depth()) - 1.0);
    double sum = 0.0;
    Place total{};
    for (const int index : *reflex.getPoints()) {
        int x = 0, y = 0, z = 0;
        VolumeMath::getCoordinates(reflex.getVolume(), index, x, y, z);
        const auto sample = geometry.sample(static_cast<unsigned>(x), static_cast<unsigned>(z));
        const double weight = std::max<double>(VolumeMath::getValue(reflex.getVolume(), index), 0.0);
        if (!sample.inside()) continue;
        const double radius = geometry.meanRadius(sample);
        const double tilt = geometry.meanTilt(sample);
        sum += weight;
        total.position[0] += weight * radius * std::cos(tilt);
        total.position[1] += weight * y;
        total.position[2] += weight * radius * std::sin(tilt);
        total.tilt += weight * tilt;
    }
    if (!(sum > 0.0)) return false;
    place.position[0] = centreX + total.position[0] / sum;
    place.position[1] = total.position[1] / sum;
    place.position[2] = centreZ + total.position[2] / sum;
    place.tilt = total.tilt / sum;
    return true;
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
    ReflexVectorPtr result(new ReflexVector);
    result->reserve(reflections->size());
    for (Reflex* reflex : *reflections) {
        Place place{};
        if (reflex) place = placeOf(*reflex);
        result->push_back(reflex ? copyAt(place.position, *reflex) : nullptr);
        if (tilts) tilts->push_back(place.tilt);
    }
    return result.release();
}

}  // namespace

ReflexVector* ReflectionPositions::fromSamples(const ReflexVector* reflections,
                                               const SamplingGeometry& geometry, std::vector<double>* tilts) {
    const double centre[3] = {0.5 * (static_cast<double>(geometry.width()) - 1.0), 0.0,
                              0.5 * (static_cast<double>(geometry.depth()) - 1.0)};
    return copyList(reflections, tilts, [&](Reflex& reflex) {
        Place place{};
        auto* onGrid = dynamic_cast<ReflexOnGrid*>(&reflex);
        const bool hasVoxels = onGrid && onGrid->getVolume() && onGrid->getPoints();
        if (hasVoxels && placeOfSamples(*onGrid, geometry, place)) return place;
        return placeOfCenter(reflex, 3, centre);
    });
}

ReflexVector* ReflectionPositions::fromCenters(const ReflexVector* reflections, int centerType,
                                               const double origin[3], std::vector<double>* tilts) {
    return copyList(reflections, tilts,
                    [&](Reflex& reflex) { return placeOfCenter(reflex, centerType, origin); });
}
