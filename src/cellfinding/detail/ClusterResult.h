/// \file
/// What both clusterings hand back, built from the labels in the grid.
#pragma once

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "cellfinding/Cluster.h"
#include "cellfinding/CubicGrid.h"
#include "foundation/VRKLogger.h"

namespace VRK::detail {

/// The label is a short.
inline constexpr int kMostClusters = std::numeric_limits<short>::max();

/// Says that there may be more clusters than labels.
inline void warnOfClusterLimit(int clusterCount) {
    if (clusterCount < kMostClusters) return;
    VRKLogger::getInstance()->log("More clusters than labels: points of clusters after number " +
                                      std::to_string(kMostClusters) +
                                      " are noise. Use a larger radius or a larger number of points.",
                                  VRK::Error, VRK::Information);
}

/// Replaces the lists by one new cluster per label from 1 to \p clusterCount and a copy of each noise point.
template <typename P>
void fillClusters(CubicGrid<P>& grid, int clusterCount, std::vector<Cluster<Point<double>>*>& clusters,
                  std::vector<ClusterPoint<double>*>& noise) {
    std::vector<std::vector<Point<double>*>> members(static_cast<std::size_t>(clusterCount));
    std::vector<std::unique_ptr<ClusterPoint<double>>> noiseCopies;
    for (P* point : *grid.getPoints()) {
        const short label = point->getClusterID();
        if (label >= 1 && label <= clusterCount)
            members[static_cast<std::size_t>(label - 1)].push_back(point);
        else if (label == 0)
            noiseCopies.push_back(
                std::make_unique<ClusterPoint<double>>(point->getData(), point->getDimension(), label));
    }
    std::vector<std::unique_ptr<Cluster<Point<double>>>> built;
    for (int label = 1; label <= clusterCount; ++label)
        built.push_back(
            std::make_unique<Cluster<Point<double>>>(&members[static_cast<std::size_t>(label - 1)], label));

    clusters.clear();
    clusters.reserve(built.size());
    noise.clear();
    noise.reserve(noiseCopies.size());
    for (auto& cluster : built)
        clusters.push_back(cluster.release());
    for (auto& point : noiseCopies)
        noise.push_back(point.release());
}

}  // namespace VRK::detail
