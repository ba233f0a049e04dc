#include "pipeline/merging/CellClusters.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"

namespace vrk {
namespace {

/// The first radius, as a part of the cut, within which cells are taken for one.
constexpr double kFirstRadius = 0.05;

/// Lattices that differ by such a strain have nothing in common, however much more it is.
constexpr double kFarthest = 0.5;

double boundedDistance(const ReducedCell& a, const ReducedCell& b, CellMetric metric) {
    if (metric == CellMetric::S6) return a.distance(b, metric);
    return a.leastStrain(b) > kFarthest ? kFarthest : std::min(a.distance(b, metric), kFarthest);
}

/// A step between two crystals that stand for what they are in.
struct Link {
    std::size_t first, second;
    double distance;
};

/// Crystals that stand for those near to them.
struct Leader {
    std::size_t crystal;
    ReducedCell cell;
    std::size_t crystals = 1;
};

class Leaders {
public:
    explicit Leaders(const CellClusterOptions& options) : m_options(options) {}

    void add(std::size_t crystal, ReducedCell cell) {
        join({crystal, std::move(cell)});
        while (m_leaders.size() > m_options.mostDifferent) {
            m_radius = std::max(2 * m_radius, kFirstRadius * m_options.cut);
            std::vector<Leader> before;
            before.swap(m_leaders);
            for (Leader& leader : before)
                join(std::move(leader));
        }
    }
    const std::vector<Leader>& list() const { return m_leaders; }
    std::vector<Link>& links() { return m_links; }
    double radius() const { return m_radius; }

private:
    void join(Leader one) {
        if (m_radius > 0)
            for (Leader& leader : m_leaders) {
                if (m_options.metric == CellMetric::Strain && leader.cell.leastStrain(one.cell) > m_radius)
                    continue;
                const double distance = leader.cell.distance(one.cell, m_options.metric);
                if (distance > m_radius) continue;
                m_links.push_back({leader.crystal, one.crystal, distance});
                leader.crystals += one.crystals;
                return;
            }
        m_leaders.push_back(std::move(one));
    }

    const CellClusterOptions& m_options;
    std::vector<Leader> m_leaders;
    std::vector<Link> m_links;
    double m_radius = 0;
};

/// The tree of the leaders by nearest-neighbour chains.
class Tree {
public:
    Tree(const std::vector<Leader>& leaders, CellMetric metric)
        : m_count(leaders.size()), m_distances(m_count * m_count, 0.0) {
        for (std::size_t i = 0; i < m_count; ++i) {
            m_crystals.push_back(leaders[i].crystals);
            for (std::size_t j = 0; j < i; ++j)
                at(i, j) = at(j, i) = boundedDistance(leaders[i].cell, leaders[j].cell, metric);
        }
    }

    void grow(const std::vector<Leader>& leaders, std::vector<Link>& links) {
        std::vector<std::size_t> chain;
        for (std::size_t left = m_count; left > 1;) {
            if (chain.empty()) chain.push_back(firstAlive());
            const std::size_t tip = chain.back();
            const std::size_t before = chain.size() > 1 ? chain[chain.size() - 2] : m_count;
            const std::size_t next = nearest(tip, before);
            if (next != before) {
                chain.push_back(next);
                continue;
            }
            chain.resize(chain.size() - 2);
            const std::size_t kept = std::min(tip, next), gone = std::max(tip, next);
            links.push_back({leaders[kept].crystal, leaders[gone].crystal, at(kept, gone)});
            unite(kept, gone);
            --left;
        }
    }

private:
    double& at(std::size_t i, std::size_t j) { return m_distances[i * m_count + j]; }

    std::size_t firstAlive() const {
        return static_cast<std::size_t>(
            std::find_if(m_crystals.begin(), m_crystals.end(), [](std::size_t n) { return n > 0; }) -
            m_crystals.begin());
    }
    /// \p preferred  when it is as near as any other, which keeps chains from running in circles
    std::size_t nearest(std::size_t from, std::size_t preferred) {
        std::size_t best = preferred;
        double least = preferred < m_count ? at(from, preferred) : std::numeric_limits<double>::infinity();
        for (std::size_t j = 0; j < m_count; ++j)
            if (m_crystals[j] > 0 && j != from && at(from, j) < least) {
                least = at(from, j);
                best = j;
            }
        return best;
    }
    void unite(std::size_t kept, std::size_t gone) {
        const auto n = static_cast<double>(m_crystals[kept]), m = static_cast<double>(m_crystals[gone]);
        for (std::size_t k = 0; k < m_count; ++k) {
            const double mean = (n * at(kept, k) + m * at(gone, k)) / (n + m);
            at(kept, k) = at(k, kept) = mean;
        }
        m_crystals[kept] += m_crystals[gone];
        m_crystals[gone] = 0;
    }

    std::size_t m_count;
    std::vector<double> m_distances;
    std::vector<std::size_t> m_crystals;  ///< 0: united with another
};

/// Numbers the steps as a dendrogram does, and keeps the sets that are left at the cut.
class Sets {
public:
    explicit Sets(std::size_t count) : m_parent(2 * count) { std::iota(m_parent.begin(), m_parent.end(), 0); }

    std::size_t rootOf(std::size_t one) {
        while (m_parent[one] != one)
            one = m_parent[one] = m_parent[m_parent[one]];
        return one;
    }
    void unite(std::size_t a, std::size_t b, std::size_t into) { m_parent[a] = m_parent[b] = into; }

private:
    std::vector<std::size_t> m_parent;
};

void makeJoins(std::vector<Link>& links, std::size_t count, double cut, CellClustering& result) {
    std::stable_sort(links.begin(), links.end(),
                     [](const Link& a, const Link& b) { return a.distance < b.distance; });
    Sets sets(count);
    Sets within(count);
    std::vector<std::size_t> sizes(2 * count, 1);
    for (const Link& link : links) {
        const std::size_t a = sets.rootOf(link.first), b = sets.rootOf(link.second);
        const std::size_t made = count + result.joins.size();
        sizes[made] = sizes[a] + sizes[b];
        result.joins.push_back({std::min(a, b), std::max(a, b), link.distance, sizes[made]});
        sets.unite(a, b, made);
        if (link.distance <= cut) within.unite(within.rootOf(link.first), within.rootOf(link.second), made);
    }
    std::vector<std::vector<std::size_t>> members(2 * count);
    for (std::size_t i = 0; i < count; ++i)
        if (result.clusterOf[i] >= 0) members[within.rootOf(i)].push_back(i);
    for (auto& one : members)
        if (!one.empty()) result.clusters.push_back({std::move(one), 0, 0});
    std::sort(result.clusters.begin(), result.clusters.end(), [](const CellCluster& a, const CellCluster& b) {
        return a.crystals.size() != b.crystals.size() ? a.crystals.size() > b.crystals.size()
                                                      : a.crystals < b.crystals;
    });
}

/// The crystal among evenly chosen ones that is nearest to all of these.
std::size_t middleOf(const CellCluster& cluster, std::span<const CrystalCell> crystals, CellMetric metric) {
    constexpr std::size_t kTried = 50;
    const std::size_t count = cluster.crystals.size();
    const std::size_t tried = std::min(count, kTried);
    std::vector<std::size_t> numbers;
    std::vector<ReducedCell> cells;
    for (std::size_t i = 0; i < tried; ++i) {
        numbers.push_back(cluster.crystals[i * count / tried]);
        cells.emplace_back(crystals[numbers.back()]);
    }
    std::size_t best = 0;
    double least = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < tried; ++i) {
        double sum = 0;
        for (std::size_t j = 0; j < tried; ++j)
            if (j != i) sum += cells[i].distance(cells[j], metric);
        if (sum < least) {
            least = sum;
            best = i;
        }
    }
    return numbers[best];
}

void describe(CellCluster& cluster, std::span<const CrystalCell> crystals, CellMetric metric,
              std::vector<double>& fromMiddle) {
    cluster.middle = middleOf(cluster, crystals, metric);
    const ReducedCell middle(crystals[cluster.middle]);
    std::vector<double> distances;
    for (const std::size_t i : cluster.crystals) {
        if (i == cluster.middle) continue;
        fromMiddle[i] = middle.distance(ReducedCell(crystals[i]), metric);
        distances.push_back(fromMiddle[i]);
    }
    if (!distances.empty()) cluster.spread = medianOf(std::move(distances));
}

}  // namespace

CellClustering clusterCells(std::span<const CrystalCell> crystals, const CellClusterOptions& options) {
    if (!(options.cut > 0) || options.mostDifferent < 2)
        throw Failure("cells are clustered by a distance above zero, and at least two of them",
                      FailureKind::Usage);
    CellClustering result;
    result.clusterOf.assign(crystals.size(), 0);
    result.fromMiddle.assign(crystals.size(), 0);
    Leaders leaders(options);
    for (std::size_t i = 0; i < crystals.size(); ++i) {
        try {
            leaders.add(i, ReducedCell(crystals[i]));
        } catch (const Failure&) {
            result.clusterOf[i] = -1;
            result.unusable.push_back(i);
        }
    }
    result.resolution = leaders.radius();
    Tree(leaders.list(), options.metric).grow(leaders.list(), leaders.links());
    makeJoins(leaders.links(), crystals.size(), options.cut, result);
    for (std::size_t c = 0; c < result.clusters.size(); ++c) {
        CellCluster& cluster = result.clusters[c];
        describe(cluster, crystals, options.metric, result.fromMiddle);
        for (const std::size_t i : cluster.crystals)
            result.clusterOf[i] = static_cast<int>(c);
        if (cluster.crystals.size() == 1 && result.clusters.front().crystals.size() > 1)
            result.outliers.push_back(cluster.crystals.front());
    }
    std::sort(result.outliers.begin(), result.outliers.end());
    return result;
}

}  // namespace vrk
