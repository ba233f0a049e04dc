/// \file
/// DBSCAN, DDSC and FSC: labels and lists agree, DBSCAN's also with distances and in any order of the points.
#include <algorithm>
#include <memory>
#include <vector>

#include "FuzzInput.h"
#include "cellfinding/DBSCAN.h"
#include "cellfinding/DDSC.h"
#include "cellfinding/FSC.h"

template <typename P>
using Grid = CubicGrid<P>;
using Position = std::array<double, 3>;

/// What a clustering returns, owned.
struct Lists {
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;
    ~Lists() {
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* point : noise)
            delete point;
    }
};

template <typename P>
static P pointAt(const Position& p) {
    if constexpr (std::is_same_v<P, ClusterPoint<double>>)
        return P(p.data(), 3, -1);
    else
        return P(p.data(), 3, -1, -1);
}

template <typename P>
static std::unique_ptr<Grid<P>> gridOf(const std::vector<Position>& positions, int edge) {
    std::vector<P> points;
    for (const Position& p : positions)
        points.push_back(pointAt<P>(p));
    std::vector<P*> list;
    for (P& point : points)
        list.push_back(&point);
    return std::make_unique<Grid<P>>(&list, edge);
}

/// \returns how many clusters there are
template <typename P>
static std::size_t expectAgreement(Grid<P>& grid, const Lists& lists) {
    std::vector<std::size_t> counts(lists.clusters.size() + 1);
    std::size_t unseen = 0;
    for (const P* point : *grid.getPoints()) {
        const int label = point->getClusterID();
        fuzz::expect(label >= -1 && label <= static_cast<int>(lists.clusters.size()), "labels name clusters");
        if (label >= 0)
            ++counts[static_cast<std::size_t>(label)];
        else
            ++unseen;
    }
    fuzz::expect(counts[0] == lists.noise.size(), "the list of noise is complete");
    for (std::size_t i = 0; i < lists.clusters.size(); ++i)
        fuzz::expect(static_cast<std::size_t>(lists.clusters[i]->getNumberOfPoints()) == counts[i + 1] &&
                         counts[i + 1] > 0,
                     "clusters hold the points of their label");
    return lists.clusters.size() + (unseen > 0 ? 100000 : 0);
}

static std::size_t dbscan(const std::vector<Position>& positions, int edge, double eps, int least) {
    const auto grid = gridOf<ClusterPoint<double>>(positions, edge);
    Lists lists;
    DBSCAN::cluster(grid.get(), eps, least, &lists.clusters, &lists.noise);
    const std::size_t count = expectAgreement(*grid, lists);
    if (!grid->coversRadius(eps)) return count;
    for (const ClusterPoint<double>* a : *grid->getPoints()) {
        int near = 0;
        for (const ClusterPoint<double>* b : *grid->getPoints())
            near += std::hypot(a->getData(0) - b->getData(0), a->getData(1) - b->getData(1),
                               a->getData(2) - b->getData(2)) < eps * (1.0 - 1e-12);
        if (near >= least) fuzz::expect(a->getClusterID() > 0, "dense points are in clusters");
    }
    return count;
}

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    const int edge = numbers.whole(0, 20);
    const int least = numbers.whole(1, 9);
    const double eps = numbers.whole(0, 9) == 0 ? std::abs(numbers.any()) : numbers.within(0.01, 20.0);
    if (!(eps > 0.0)) return;
    std::vector<Position> positions;
    while (numbers.more() && positions.size() < 100)
        positions.push_back({numbers.any(), numbers.any(), numbers.any()});
    if (positions.empty()) return;

    const std::size_t forwards = dbscan(positions, edge, eps, least);
    {
        const auto grid = gridOf<ClusterPointDDSC<double>>(positions, edge);
        Lists lists;
        DDSC::clustering(grid.get(), eps, least, 2.0, &lists.clusters, &lists.noise);
        if (positions.size() > 1) expectAgreement(*grid, lists);
    }
    // Its grid of the density takes nearly all of the time.
    if (bytes.size() % 8 == 0) {
        const auto grid = gridOf<ClusterPoint<double>>(positions, edge);
        Lists lists;
        FSC fsc;
        if (fsc.cluster(grid.get(), 0.0, &lists.clusters, &lists.noise)) expectAgreement(*grid, lists);
    }
    const bool isRegular = gridOf<ClusterPoint<double>>(positions, edge)->coversRadius(eps);
    std::reverse(positions.begin(), positions.end());
    if (isRegular)
        fuzz::expect(dbscan(positions, edge, eps, least) == forwards,
                     "the order makes no other number of clusters");
}
