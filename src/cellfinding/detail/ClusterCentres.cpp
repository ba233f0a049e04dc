#include "cellfinding/detail/ClusterCentres.h"

#include <algorithm>
#include <cmath>

#include "crystallography/BasicMath.h"

namespace VRK::detail {

bool isFinite(const Vector& v) {
    return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

std::vector<Centre> centresOf(const Clusters& clusters) {
    std::vector<Centre> centres;
    for (const auto* cluster : clusters) {
        if (!cluster || cluster->getNumberOfPoints() == 0) continue;
        Centre centre{{}, static_cast<double>(cluster->getNumberOfPoints())};
        for (int axis = 0; axis < std::min(cluster->getDimension(), 3); ++axis)
            centre.place[static_cast<std::size_t>(axis)] = cluster->getCenterOfGrafity(axis);
        if (isFinite(centre.place)) centres.push_back(centre);
    }
    return centres;
}

double lengthOfShortest(std::span<const Centre> centres) {
    double shortest = 0.0;
    for (const Centre& centre : centres) {
        const double length = BasicMath::Norm(centre.place.data());
        if (length > 0.0 && (shortest == 0.0 || length < shortest)) shortest = length;
    }
    return shortest;
}

}  // namespace VRK::detail
