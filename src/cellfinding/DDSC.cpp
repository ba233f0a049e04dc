#include "cellfinding/DDSC.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <span>

#include "cellfinding/detail/ClusterResult.h"
#include "cellfinding/detail/Trace.h"

namespace {

using PointType = ClusterPointDDSC<double>;
using Grid = CubicGrid<PointType>;

void report(const char* message, VRK::MessageType type) {
    VRKLogger::getInstance()->log(message, type, VRK::Information);
}

/// Counts once per clustering and keeps the count in the point.
int sizeOf(Grid& grid, PointType& point, double eps) {
    if (point.getSizeOfNeighbourhood() < 0) {
        constexpr int kMost = std::numeric_limits<short>::max();
        point.setSizeOfNeighbourhood(std::min(grid.getSizeOfNeighborhood(&point, eps), kMost));
    }
    return point.getSizeOfNeighbourhood();
}

/// The density that a cluster started from and what counts as alike.
struct DensityStep {
    int size;
    double denser;
    double thinner;

    bool isThinner(int other) const { return other < size && !(other > thinner * size); }
    bool isDenser(int other) const { return other > size && !(size > denser * other); }
    bool contains(int other) const { return !isThinner(other) && !isDenser(other); }
};

/// Lets points tell the cluster's density instead of their own, if it is alike, while this object lives.
class RecordedSteps {
public:
    RecordedSteps(const DensityStep& step, PointType* point, const std::vector<PointType*>& neighbours) {
        record(step, point);
        for (PointType* neighbour : neighbours)
            if (neighbour != point) record(step, neighbour);
    }
    ~RecordedSteps() {
        for (const auto& [point, size] : m_sizes)
            point->setSizeOfNeighbourhood(size);
    }
    RecordedSteps(const RecordedSteps&) = delete;
    RecordedSteps& operator=(const RecordedSteps&) = delete;

private:
    void record(const DensityStep& step, PointType* point) {
        const int size = point->getSizeOfNeighbourhood();
        m_sizes.emplace_back(point, size);
        if (step.contains(size)) point->setSizeOfNeighbourhood(step.size);
    }

    std::vector<std::pair<PointType*, int>> m_sizes;
};

/// The neighbourhood of a point, nearest first.
void neighboursByDistance(Grid& grid, const PointType& point, double eps, std::vector<PointType*>& out) {
    grid.getNeighborhood(&point, eps, &out);
    for (PointType* neighbour : out)
        neighbour->setDistToCurrentPoint(&point);
    std::stable_sort(out.begin(), out.end(), PointType::sortFunction);
}

/// Takes in the candidates (sorted, each once) that have less than the share \p most of their neighbours
/// beyond the reach of the cluster. Neighbours of earlier clusters do not count.
void takeRimPoints(Grid& grid, const std::vector<PointType*>& candidates, double eps, short clusterID,
                   double most) {
    std::vector<PointType*> neighbours;
    std::vector<PointType*> taken;
    for (PointType* point : candidates) {
        grid.getNeighborhood(point, eps, &neighbours);
        int counted = 0;
        int beyond = 0;
        for (PointType* neighbour : neighbours) {
            const short label = neighbour->getClusterID();
            if (label > 0 && label != clusterID) continue;
            ++counted;
            beyond += label <= 0 && !std::binary_search(candidates.begin(), candidates.end(), neighbour);
        }
        if (beyond < most * counted) taken.push_back(point);
    }
    for (PointType* point : taken)
        point->setClusterID(clusterID);
}

}  // namespace

void DDSC::clustering(CubicGrid<ClusterPointDDSC<double>>* grid, double eps, int minPts, double alpha,
                      std::vector<Cluster<Point<double>>*>* clusters,
                      std::vector<ClusterPoint<double>*>* noise) {
    const VRK::detail::Trace trace(">> DDSC::clustering", "<< DDSC::clustering");
    if (!grid) return report("No data given for DDSC clustering.", VRK::Error);
    if (grid->getNumberOfPoints() < 2)
        return report("Not enough points given for DDSC clustering.", VRK::Error);
    if (!(eps > 0.0)) {
        report("Parameter eps must be positiv. Use default parameter now.", VRK::Warning);
        eps = 3.0;
    }
    if (minPts <= 1) {
        report("Parameter minPts must be bigger then 1. Use default parameter now.", VRK::Warning);
        minPts = 60;
    }
    if (!(alpha > 1.0)) {
        report("Parameter alpha must be bigger then 1. Use default parameter now.", VRK::Warning);
        alpha = 2.0;
    }
    if (!clusters) return report("No cluster vector given for DDSC clustering.", VRK::Error);
    if (!noise) return report("No noise vector given for DDSC clustering.", VRK::Error);

    std::vector<PointType*>& points = *grid->getPoints();
    for (PointType* point : points) {
        point->setClusterID(-1);
        point->setSizeOfNeighbourhood(-1);
    }
    const double k1 = (1 + alpha) / (2 * alpha);
    const double k2 = 2 / (1 + alpha);
    const double k3 = 2 / ((points.front()->getDimension() + 1) * (1 + alpha));
    const double k4 = alpha / (1 + alpha);
    int clusterID = 1;
    for (int i = 0; i < grid->getNumberOfPoints(); ++i)
        if (grid->getPoint(i)->getClusterID() == -1 &&
            expand(grid, i, eps, minPts, clusterID, k1, k2, k3, k4, true))
            ++clusterID;
    VRK::detail::warnOfClusterLimit(clusterID - 1);

    if (std::any_of(points.begin(), points.end(), [](PointType* p) { return p->getClusterID() == -1; }))
        return report("Not all points are correct classified.", VRK::Error);
    VRKLogger::getInstance()->log("fill cluster", VRK::Debug, VRK::Information);
    VRK::detail::fillClusters(*grid, clusterID - 1, *clusters, *noise);
}

bool DDSC::isHomogeneous(const PointType* point, const std::vector<PointType*>* neighbours, double denser,
                         double thinner, double least, double most) {
    const int s = point->getSizeOfNeighbourhood();
    int counted = 0;
    for (const PointType* neighbour : *neighbours) {
        const int t = neighbour->getSizeOfNeighbourhood();
        if (t < 1) continue;
        ++counted;
        const int larger = std::max(s, t);
        const int ratio = std::min(s, t) / larger;
        if (ratio <= (t < s ? thinner : denser)) return false;
    }
    return least <= counted && counted <= most;
}

bool DDSC::expand(CubicGrid<PointType>* grid, int pointIndex, double eps, int minPts, int clusterID,
                  double k1, double k2, double k3, double k4, bool takeRim) {
    PointType* start = grid->getPoint(pointIndex);
    const auto label = static_cast<short>(clusterID);
    const DensityStep step{sizeOf(*grid, *start, eps), k1, k2};
    std::vector<PointType*> neighbours;
    std::vector<PointType*> tested;

    const auto isCore = [&](PointType* point) {
        const double size = sizeOf(*grid, *point, eps);
        if (size < minPts) return false;
        neighboursByDistance(*grid, *point, eps, neighbours);
        tested.clear();
        const auto inner = static_cast<std::size_t>(k4 * static_cast<double>(neighbours.size()));
        for (PointType* neighbour : std::span(neighbours).first(inner)) {
            const int other = sizeOf(*grid, *neighbour, eps);
            const bool ofOthers = neighbour->getClusterID() > 0 && neighbour->getClusterID() != label;
            if (step.isDenser(other) || (step.contains(other) && !ofOthers)) tested.push_back(neighbour);
        }
        const RecordedSteps steps(step, point, tested);
        return isHomogeneous(point, &tested, k1, k2, k3 * size, k4 * size);
    };

    const auto isFree = [&] {
        const auto owned = std::count_if(neighbours.begin(), neighbours.end(),
                                         [](const PointType* p) { return p->getClusterID() > 0; });
        return static_cast<double>(owned) < k3 * static_cast<double>(neighbours.size());
    };
    if (clusterID > VRK::detail::kMostClusters || !isCore(start) || !isFree()) {
        start->setClusterID(0);
        return false;
    }
    start->setClusterID(label);
    std::vector<PointType*> rim;
    for (std::deque<PointType*> seeds{start}; !seeds.empty(); seeds.pop_front()) {
        if (!isCore(seeds.front())) continue;
        for (PointType* neighbour : neighbours) {
            if (neighbour->getClusterID() > 0) continue;
            if (step.contains(sizeOf(*grid, *neighbour, eps))) {
                neighbour->setClusterID(label);
                seeds.push_back(neighbour);
            } else {
                rim.push_back(neighbour);
            }
        }
    }
    std::sort(rim.begin(), rim.end());  // one block of memory: the order of the list
    rim.erase(std::unique(rim.begin(), rim.end()), rim.end());
    std::erase_if(rim, [](const PointType* point) { return point->getClusterID() > 0; });
    if (takeRim) takeRimPoints(*grid, rim, eps, label, k3);
    return true;
}
