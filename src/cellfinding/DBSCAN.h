/// \file
/// Density-based clustering with one radius and one minimum count.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/CubicGrid.h"

/// DBSCAN (M. Ester, H.-P. Kriegel, J. Sander, X. Xu: A density-based algorithm for discovering clusters in
/// large spatial databases with noise, KDD-96, 226-231) over the neighbourhoods of a cubic grid.
class VRKCORE_EXPORT DBSCAN {
public:
    /// Labels the points of the grid: 0 noise, 1 and up the clusters in the order in which the grid's list
    /// reaches them. A point is a core point when its neighbourhood (distances strictly below \p eps, itself
    /// included) holds at least \p minPts points. A border point belongs to the first cluster that reaches
    /// it and stays there.
    ///
    /// Replaces \p clusters by new clusters in the order of their labels and \p noise by copies of the noise
    /// points, both owned by the caller; what the lists held before is not deleted.
    ///
    /// Null arguments, an eps that is not above 0, a minPts below 1 and a grid without points are reported as
    /// "Parameter for DBSCAN are not correct." (Error) and leave everything as it was. Labels have 16 bits:
    /// from the 32768th cluster on, points stay noise and an error says so.
    ///
    /// The points that stand in for points outside of the grid take part as points at the origin that nobody
    /// sees: noise when the origin is sparse; where it is dense they stay unclassified and are in no list.
    static void cluster(CubicGrid<ClusterPoint<double>>* grid, double eps, int minPts,
                        std::vector<Cluster<Point<double>>*>* clusters,
                        std::vector<ClusterPoint<double>*>* noise);

private:
    /// True when at least one point took the new number.
    static bool ExpandCluster(CubicGrid<ClusterPoint<double>>* grid, ClusterPoint<double>* point,
                              int clusterID, double eps, int minPts);
};
