/// \file
/// Splitting and joining of clusters.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "cellfinding/Cluster.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/CubicGrid.h"

namespace VRK::detail {

/// Clusters and the vectors that belong to none, until they are handed to a caller.
struct OwnedClusters {
    std::vector<std::unique_ptr<Cluster<Point<double>>>> clusters;
    std::vector<std::unique_ptr<ClusterPoint<double>>> noise;

    /// Numbers the clusters from 1 in their order and replaces the contents of the lists, which then own
    /// them.
    void handTo(std::vector<Cluster<Point<double>>*>& clusterList,
                std::vector<ClusterPoint<double>*>& noiseList);
};

/// The edge length, in voxels, of the grids of the cell finding.
inline constexpr int kGridEdge = 3;

/// A grid numbers its cells from the coordinate 0 and has as many as the distance of its limits asks for.
/// Widens three limits so that there is a cell for every coordinate between them.
void coverCells(double* min, double* max);

/// A grid with cells for all points of a list, which have three coordinates.
template <typename P>
std::unique_ptr<CubicGrid<P>> gridOver(const std::vector<P*>& points);

/// DBSCAN; clusters longer than wide (moments that differ by more than a factor of 10) are clustered again
/// with 0.7 of the radius, at most \p depth times, and replaced by their parts where there are several.
OwnedClusters clusterRecursively(CubicGrid<ClusterPoint<double>>& grid, double eps, int minPts, int depth);

/// Replaces clusters that \p belongTogether, also by way of others, by one cluster at the place of the
/// first. The clusters of the list are the caller's before and afterwards, numbered from 1.
void joinClusters(
    std::vector<Cluster<Point<double>>*>& clusters,
    const std::function<bool(const Cluster<Point<double>>&, const Cluster<Point<double>>&)>& belongTogether);

/// Gives the points of the grid the labels of the clusters' points that lie at the same places; all other
/// points become noise.
void labelGrid(CubicGrid<ClusterPoint<double>>& grid, const std::vector<Cluster<Point<double>>*>& clusters);

}  // namespace VRK::detail
