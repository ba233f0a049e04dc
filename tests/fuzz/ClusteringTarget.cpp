/// \file
/// DBSCAN, DDSC and FSC: labels and lists agree, DBSCAN's also with distances and in any order of the points.
#include "../cellfinding/Clustered.h"
#include "FuzzInput.h"
#include "cellfinding/DBSCAN.h"
#include "cellfinding/DDSC.h"
#include "cellfinding/FSC.h"

using testing_support::Clustered;
using Positions = std::vector<testing_support::Coordinates>;

template <typename P>
struct Clustering : Clustered<P> {
    Clustering(const Positions& positions, int edge) {
        for (const auto& position : positions)
            this->add(position);
        this->makeGridAround(edge);
    }
};

/// \returns how many clusters there are
template <typename P>
static std::size_t expectAgreement(const Clustered<P>& c) {
    fuzz::expect(c.agrees(), "clusters and noise hold the points of their labels");
    return c.clusters.size() + (c.count(-1) > 0 ? 100000 : 0);
}

static std::size_t dbscan(const Positions& positions, int edge, double eps, int least) {
    Clustering<ClusterPoint<double>> c(positions, edge);
    DBSCAN::cluster(c.grid.get(), eps, least, &c.clusters, &c.noise);
    const std::size_t count = expectAgreement(c);
    if (!c.grid->coversRadius(eps)) return count;
    for (const ClusterPoint<double>* a : *c.grid->getPoints()) {
        int near = 0;
        for (const ClusterPoint<double>* b : *c.grid->getPoints())
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
    Positions positions;
    while (numbers.more() && positions.size() < 100)
        positions.push_back({numbers.any(), numbers.any(), numbers.any()});
    if (positions.empty()) return;

    const std::size_t forwards = dbscan(positions, edge, eps, least);
    Clustering<ClusterPointDDSC<double>> byDensity(positions, edge);
    DDSC::clustering(byDensity.grid.get(), eps, least, 2.0, &byDensity.clusters, &byDensity.noise);
    if (positions.size() > 1) expectAgreement(byDensity);
    // Its grid of the density takes nearly all of the time.
    Clustering<ClusterPoint<double>> fuzzy(positions, edge);
    if (bytes.size() % 8 == 0 && FSC().cluster(fuzzy.grid.get(), 0.0, &fuzzy.clusters, &fuzzy.noise))
        expectAgreement(fuzzy);
    std::reverse(positions.begin(), positions.end());
    if (fuzzy.grid->coversRadius(eps))
        fuzz::expect(dbscan(positions, edge, eps, least) == forwards,
                     "the order makes no other number of clusters");
}
