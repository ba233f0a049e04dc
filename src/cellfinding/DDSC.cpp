#include "cellfinding/DDSC.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <span>

#include "cellfinding/detail/ClusterResult.h"
#include "cellfinding/detail/DensitySteps.h"
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

/// Lets points tell another neighbourhood than their own while this object lives.
class RecordedSizes {
public:
    RecordedSizes() = default;
    ~RecordedSizes() {
        for (auto it = m_sizes.rbegin(); it != m_sizes.rend(); ++it)
            it->first->setSizeOfNeighbourhood(it->second);
    }
    RecordedSizes(const RecordedSizes&) = delete;
    RecordedSizes& operator=(const RecordedSizes&) = delete;

    void record(PointType* point, int size) {
        m_sizes.emplace_back(point, point->getSizeOfNeighbourhood());
        point->setSizeOfNeighbourhood(size);
    }
    /// The cluster's size for points of its density.
    void recordAlike(const DensityStep& step, PointType* point) {
        if (step.contains(point->getSizeOfNeighbourhood())) record(point, step.size);
    }

private:
    std::vector<std::pair<PointType*, int>> m_sizes;
};

/// The neighbourhood of a point, nearest first.
void neighboursByDistance(Grid& grid, const PointType& point, double eps, std::vector<PointType*>& out) {
    grid.getNeighborhood(&point, eps, &out);
    for (PointType* neighbour : out)
        neighbour->setDistToCurrentPoint(&point);
    std::stable_sort(out.begin(), out.end(), PointType::sortFunction);
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
    alpha = std::min(alpha, 1e300);  // of an infinite one there are no thresholds
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
    if (grid->coversRadius(eps))
        clusterID =
            VRK::detail::labelDensitySteps(points, grid->getEdgeLength(), {eps, minPts, k1, k2, k3, k4});
    else
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

void DDSC::takeRimPoints(CubicGrid<PointType>& grid, const std::vector<PointType*>& candidates, double eps,
                         short label, int size, double k1, double k2, double k3) {
    std::vector<PointType*> neighbours;
    std::vector<PointType*> taken;
    for (PointType* point : candidates) {
        grid.getNeighborhood(point, eps, &neighbours);
        std::erase_if(neighbours, [&](const PointType* neighbour) {
            return neighbour->getClusterID() > 0 && neighbour->getClusterID() != label;
        });
        RecordedSizes sizes;
        for (PointType* neighbour : neighbours) {
            const bool within = neighbour->getClusterID() == label ||
                                std::binary_search(candidates.begin(), candidates.end(), neighbour);
            sizes.record(neighbour, within ? size : 0);
        }
        const auto counted = static_cast<double>(neighbours.size());
        if (isHomogeneous(point, &neighbours, k1, k2, counted - k3 * counted, counted))
            taken.push_back(point);
    }
    for (PointType* point : taken)
        point->setClusterID(label);
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
        RecordedSizes sizes;
        sizes.recordAlike(step, point);
        for (PointType* neighbour : tested)
            sizes.recordAlike(step, neighbour);
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
        std::erase_if(neighbours, [](const PointType* point) { return point->getClusterID() > 0; });
        for (PointType* neighbour : neighbours)
            sizeOf(*grid, *neighbour, eps);
        const std::vector<PointType*> core{seeds.front()};
        RecordedSizes sizes;
        sizes.recordAlike(step, core.front());
        for (PointType* neighbour : neighbours) {
            sizes.recordAlike(step, neighbour);
            if (isHomogeneous(neighbour, &core, k1, k2, 1.0, 1.0)) {
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
    if (takeRim) takeRimPoints(*grid, rim, eps, label, step.size, k1, k2, k3);
    return true;
}
