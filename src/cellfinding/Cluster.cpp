#include "cellfinding/Cluster.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "cellfinding/Line.h"
#include "cellfinding/detail/Trace.h"

namespace {

int usableLabel(int clusterID) {
    const VRK::detail::Trace trace(">> Constructor Cluster", "<< Constructor Cluster", VRK::ObjectControl);
    if (clusterID >= 0) return clusterID;
    VRKLogger::getInstance()->log("ClusterID has to be positiv. Use now clusterID 0.", VRK::Warning,
                                  VRK::Information);
    return 0;
}

/// Distance of the point to the centre, or to the line when there is one.
template <typename P>
double distanceToCore(const P& point, const std::vector<double>& center, const Line<double>* line) {
    std::vector<double> coordinates(center.size());
    for (std::size_t k = 0; k < center.size(); ++k)
        coordinates[k] = static_cast<double>(point.getData(static_cast<int>(k)));
    const Point<double> position(coordinates.data(), static_cast<unsigned char>(center.size()));
    const double distance =
        line ? line->getDistTo(&position) : position.distTo(center.data(), static_cast<int>(center.size()));
    // Sorting needs an order, which numbers that are none do not have.
    return distance == distance ? distance : std::numeric_limits<double>::infinity();
}

}  // namespace

template <typename P>
Cluster<P>::Cluster(const P* point, int clusterID)
    : PointSet<P>(point), m_clusterID(usableLabel(clusterID)) {}

template <typename P>
Cluster<P>::Cluster(const std::vector<P*>* points, int clusterID)
    : PointSet<P>(points), m_clusterID(usableLabel(clusterID)) {}

template <typename P>
Cluster<P>::Cluster(const Cluster<P>& other)
    : PointSet<P>(other), m_clusterID(usableLabel(other.m_clusterID)) {}

template <typename P>
Cluster<P>::~Cluster() {
    const VRK::detail::Trace trace(">> Destructor Cluster", "<< Destructor Cluster", VRK::ObjectControl);
}

template <typename P>
void Cluster<P>::setClusterID(int clusterID) {
    if (clusterID >= 0) m_clusterID = clusterID;
}

template <typename P>
bool Cluster<P>::refineCluster(double fraction) {
    if (!(fraction >= 0.0 && fraction < 1.0)) return false;
    const int count = this->getNumberOfPoints();
    const int keep = static_cast<int>(static_cast<double>(count) * fraction);

    std::unique_ptr<Line<double>> line;
    if (!this->isSpherical(10)) {
        line = std::make_unique<Line<double>>(this->getDimension());
        if (!this->getLine(line.get())) return true;
    }
    std::vector<double> center(static_cast<std::size_t>(this->getDimension()));
    this->getCenterOfGrafity(center.data());

    std::vector<std::pair<double, P*>> byDistance;
    byDistance.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        P* point = this->getPointAt(i);
        byDistance.emplace_back(distanceToCore(*point, center, line.get()), point);
    }
    std::stable_sort(byDistance.begin(), byDistance.end(), compareFunction);

    std::vector<P*> kept;
    kept.reserve(static_cast<std::size_t>(keep));
    for (int i = 0; i < keep; ++i)
        kept.push_back(byDistance[static_cast<std::size_t>(i)].second);
    this->setNewPoints(&kept);
    return true;
}

template class Cluster<Point<int>>;
template class Cluster<Point<float>>;
template class Cluster<Point<double>>;
