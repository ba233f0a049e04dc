#include "cellfinding/detail/ClusterParts.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <utility>

#include "cellfinding/DBSCAN.h"

namespace VRK::detail {
namespace {

using ClusterType = Cluster<Point<double>>;
using Vector = std::array<double, 3>;

constexpr int kElongated = 10;  // ratio of the moments
constexpr double kSmallerRadius = 0.7;

Vector placeOf(const Point<double>& point) {
    return {point.getData(0), point.getData(1), point.getData(2)};
}

OwnedClusters densityClusters(CubicGrid<ClusterPoint<double>>& grid, double eps, int minPts) {
    std::vector<ClusterType*> clusters;
    std::vector<ClusterPoint<double>*> noise;
    DBSCAN::cluster(&grid, eps, minPts, &clusters, &noise);
    OwnedClusters owned;
    for (ClusterType* cluster : clusters)
        owned.clusters.emplace_back(cluster);
    for (ClusterPoint<double>* point : noise)
        owned.noise.emplace_back(point);
    return owned;
}

/// The parts of an elongated cluster, none when it does not fall apart.
OwnedClusters partsOf(const ClusterType& cluster, double eps, int minPts, int depth) {
    std::vector<ClusterPoint<double>> copies;
    copies.reserve(static_cast<std::size_t>(cluster.getNumberOfPoints()));
    for (int i = 0; i < cluster.getNumberOfPoints(); ++i)
        copies.emplace_back(placeOf(*cluster.getPointAt(i)).data(), static_cast<unsigned char>(3), short(-1));
    std::vector<ClusterPoint<double>*> points;
    for (ClusterPoint<double>& copy : copies)
        points.push_back(&copy);
    OwnedClusters parts = clusterRecursively(*gridOver(points), eps, minPts, depth);
    return parts.clusters.size() > 1 ? std::move(parts) : OwnedClusters{};
}

}  // namespace

void OwnedClusters::handTo(std::vector<ClusterType*>& clusterList,
                           std::vector<ClusterPoint<double>*>& noiseList) {
    clusterList.clear();
    clusterList.reserve(clusters.size());
    noiseList.clear();
    noiseList.reserve(noise.size());
    for (auto& cluster : clusters) {
        cluster->setClusterID(static_cast<int>(clusterList.size()) + 1);
        clusterList.push_back(cluster.release());
    }
    for (auto& point : noise)
        noiseList.push_back(point.release());
}

void coverCells(double* min, double* max) {
    for (int axis = 0; axis < 3; ++axis) {
        min[axis] = std::min(min[axis], 0.0);
        if (!(max[axis] > min[axis])) max[axis] = min[axis] + kGridEdge;
    }
}

template <typename P>
std::unique_ptr<CubicGrid<P>> gridOver(const std::vector<P*>& points) {
    Vector min;
    Vector max;
    min.fill(std::numeric_limits<double>::max());
    max.fill(std::numeric_limits<double>::lowest());
    for (const P* point : points)
        for (int axis = 0; axis < 3; ++axis) {
            const auto k = static_cast<std::size_t>(axis);
            min[k] = std::min(min[k], point->getData(axis));
            max[k] = std::max(max[k], point->getData(axis));
        }
    coverCells(min.data(), max.data());
    return std::make_unique<CubicGrid<P>>(&points, min.data(), max.data(), kGridEdge);
}

template std::unique_ptr<CubicGrid<ClusterPoint<double>>> gridOver(
    const std::vector<ClusterPoint<double>*>& points);
template std::unique_ptr<CubicGrid<ClusterPointDDSC<double>>> gridOver(
    const std::vector<ClusterPointDDSC<double>*>& points);

OwnedClusters clusterRecursively(CubicGrid<ClusterPoint<double>>& grid, double eps, int minPts, int depth) {
    OwnedClusters found = densityClusters(grid, eps, minPts);
    if (depth <= 0) return found;
    OwnedClusters result;
    result.noise = std::move(found.noise);
    for (auto& cluster : found.clusters) {
        OwnedClusters parts;
        if (!cluster->isSpherical(kElongated))
            parts = partsOf(*cluster, kSmallerRadius * eps, minPts, depth - 1);
        if (parts.clusters.empty()) parts.clusters.push_back(std::move(cluster));
        std::move(parts.clusters.begin(), parts.clusters.end(), std::back_inserter(result.clusters));
        std::move(parts.noise.begin(), parts.noise.end(), std::back_inserter(result.noise));
    }
    return result;
}

void joinClusters(std::vector<ClusterType*>& clusters,
                  const std::function<bool(const ClusterType&, const ClusterType&)>& belongTogether) {
    std::vector<std::vector<ClusterType*>> groups;
    std::vector<bool> taken(clusters.size(), false);
    for (std::size_t first = 0; first < clusters.size(); ++first) {
        if (taken[first] || !clusters[first]) continue;
        std::vector<ClusterType*> group{clusters[first]};
        for (std::size_t member = 0; member < group.size(); ++member)
            for (std::size_t other = first + 1; other < clusters.size(); ++other)
                if (!taken[other] && clusters[other] && belongTogether(*group[member], *clusters[other])) {
                    taken[other] = true;
                    group.push_back(clusters[other]);
                }
        groups.push_back(std::move(group));
    }
    std::vector<std::unique_ptr<ClusterType>> joined;
    for (const auto& group : groups) {
        std::vector<Point<double>*> points;
        for (const ClusterType* cluster : group)
            for (int i = 0; i < cluster->getNumberOfPoints(); ++i)
                points.push_back(cluster->getPointAt(i));
        joined.push_back(std::make_unique<ClusterType>(&points, static_cast<int>(joined.size()) + 1));
    }
    for (const ClusterType* cluster : clusters)
        delete cluster;
    clusters.clear();
    for (auto& cluster : joined)
        clusters.push_back(cluster.release());
}

void labelGrid(CubicGrid<ClusterPoint<double>>& grid, const std::vector<ClusterType*>& clusters) {
    std::vector<std::pair<Vector, short>> labels;
    for (const ClusterType* cluster : clusters)
        for (int i = 0; i < cluster->getNumberOfPoints(); ++i)
            labels.emplace_back(placeOf(*cluster->getPointAt(i)),
                                static_cast<short>(cluster->getClusterID()));
    std::sort(labels.begin(), labels.end());
    for (ClusterPoint<double>* point : *grid.getPoints()) {
        const Vector place = placeOf(*point);
        const auto found = std::lower_bound(labels.begin(), labels.end(), std::pair(place, short(0)));
        point->setClusterID(found != labels.end() && found->first == place ? found->second : short(0));
    }
}

}  // namespace VRK::detail
