#include "cellfinding/DBSCAN.h"

#include <algorithm>
#include <deque>

#include "cellfinding/detail/ClusterResult.h"
#include "cellfinding/detail/DensityLabels.h"
#include "cellfinding/detail/Trace.h"

namespace {

/// Labels the whole grid without asking for one neighbourhood after the other, where distances alone tell
/// what a neighbour is. False, with nothing done, elsewhere.
bool labelAtOnce(CubicGrid<ClusterPoint<double>>& grid, double eps, int minPts, int& nextID) {
    if (!grid.coversRadius(eps)) return false;
    const std::vector<int> labels = VRK::detail::densityLabels(*grid.getPoints(), eps, minPts);
    if (labels.empty()) return false;
    for (std::size_t i = 0; i < labels.size(); ++i) {
        const int label = labels[i] <= VRK::detail::kMostClusters ? labels[i] : 0;
        (*grid.getPoints())[i]->setClusterID(static_cast<short>(label));
        nextID = std::max(nextID, label + 1);
    }
    return true;
}

}  // namespace

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
    if (!labelAtOnce(*grid, eps, minPts, clusterID)) {
        for (ClusterPoint<double>* point : *grid->getPoints())
            if (point->getClusterID() == -1 && ExpandCluster(grid, point, clusterID, eps, minPts))
                ++clusterID;
    }
    VRK::detail::warnOfClusterLimit(clusterID - 1);
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
