#include "cellfinding/DBSCAN.h"

#include <deque>

#include "cellfinding/ClusterResultInternal.h"
#include "cellfinding/TraceInternal.h"

void DBSCAN::cluster(CubicGrid<ClusterPoint<double>>* grid, double eps, int minPts,
                     std::vector<Cluster<Point<double>>*>* clusters,
                     std::vector<ClusterPoint<double>*>* noise) {
    const VRK::detail::Trace trace(">> DBSCAN::cluster", "<< DBSCAN::cluster");
    if (!grid || !clusters || !noise || !(eps > 0.0) || minPts < 1 || grid->getNumberOfPoints() < 1) {
        VRKLogger::getInstance()->log("Parameter for DBSCAN are not correct.", VRK::Error, VRK::Information);
        return;
    }
    for (ClusterPoint<double>* point : *grid->getPoints())
        point->setClusterID(-1);
    int clusterID = 1;
    for (ClusterPoint<double>* point : *grid->getPoints())
        if (point->getClusterID() == -1 && ExpandCluster(grid, point, clusterID, eps, minPts)) ++clusterID;
    VRK::detail::fillClusters(*grid, clusterID - 1, *clusters, *noise);
}

bool DBSCAN::ExpandCluster(CubicGrid<ClusterPoint<double>>* grid, ClusterPoint<double>* point, int clusterID,
                           double eps, int minPts) {
    std::vector<ClusterPoint<double>*> neighbours;
    grid->getNeighborhood(point, eps, &neighbours);
    if (neighbours.size() < static_cast<std::size_t>(minPts) || clusterID > VRK::detail::kMostClusters) {
        point->setClusterID(0);
        return false;
    }
    bool grown = false;
    std::deque<ClusterPoint<double>*> seeds;
    const auto take = [&](const std::vector<ClusterPoint<double>*>& found) {
        for (ClusterPoint<double>* neighbour : found) {
            if (neighbour->getClusterID() > 0) continue;
            if (neighbour->getClusterID() == -1) seeds.push_back(neighbour);
            neighbour->setClusterID(static_cast<short>(clusterID));
            grown = true;
        }
    };
    take(neighbours);
    for (; !seeds.empty(); seeds.pop_front()) {
        grid->getNeighborhood(seeds.front(), eps, &neighbours);
        if (neighbours.size() >= static_cast<std::size_t>(minPts)) take(neighbours);
    }
    return grown;
}
