#include "cellfinding/detail/DensitySteps.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <tuple>
#include <utility>

#include "cellfinding/detail/CellList.h"
#include "cellfinding/detail/ClusterResult.h"
#include "cellfinding/detail/NeighbourRows.h"

namespace VRK::detail {
namespace {

using StepPoint = ClusterPointDDSC<double>;
using Place = std::uint32_t;

constexpr int kMostCounted = std::numeric_limits<short>::max();
constexpr double kOfOthers = -1.0;

using Stretch = NeighbourRows::Stretch;
using Stretches = NeighbourRows::Stretches;

/// What the loops over candidates read, by place: lanes of one width.
struct StepColumns {
    const double* x;
    const double* y;
    const double* z;
    std::vector<double> size;            // of the neighbourhood
    std::vector<double> freeSize;        // the same, kOfOthers for points of earlier clusters
    std::vector<std::int64_t> open;      // 1: no cluster's, nor known as a candidate of this one's rim
    std::vector<std::int64_t> inside;    // 1: of this cluster, or a candidate of its rim
    std::vector<std::int64_t> examiner;  // whose neighbourhood a point was in at last, -1: nobody's
};

/// The sizes that are one step of density.
struct StepRange {
    double least;
    double most;
};

/// What a neighbourhood counts.
struct Census {
    std::int64_t all = 0;
    std::int64_t denser = 0;
    std::int64_t alike = 0;  // of the step's density and in no earlier cluster
    std::int64_t open = 0;
};

/// Leaves the place with all neighbours as the one that examined them.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
Census
takeCensus(StepColumns& columns, Stretches stretches, std::size_t place, double reach2, StepRange range) {
    const double* const x = columns.x;
    const double* const y = columns.y;
    const double* const z = columns.z;
    const double* const size = columns.size.data();
    const double* const freeSize = columns.freeSize.data();
    const std::int64_t* const open = columns.open.data();
    std::int64_t* const examiner = columns.examiner.data();
    const double px = x[place], py = y[place], pz = z[place];
    const auto own = static_cast<std::int64_t>(place);
    std::int64_t all = 0, denser = 0, alike = 0, opened = 0;
    for (const Stretch& stretch : stretches)
        for (std::size_t i = stretch.begin; i < stretch.end; ++i) {
            const double dx = x[i] - px, dy = y[i] - py, dz = z[i] - pz;
            const std::int64_t near = dx * dx + dy * dy + dz * dz <= reach2 ? 1 : 0;
            all += near;
            denser += size[i] > range.most ? near : 0;
            const std::int64_t notThinner = freeSize[i] >= range.least ? near : 0;
            alike += freeSize[i] <= range.most ? notThinner : 0;
            opened += open[i] & near;
            examiner[i] = near != 0 ? own : examiner[i];
        }
    return {all, denser, alike, opened};
}

/// Neighbours that no earlier cluster has, and those of them that are within the cluster's reach.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
std::pair<std::int64_t, std::int64_t>
countRim(const StepColumns& columns, Stretches stretches, std::size_t place, double reach2) {
    const double* const x = columns.x;
    const double* const y = columns.y;
    const double* const z = columns.z;
    const double* const freeSize = columns.freeSize.data();
    const std::int64_t* const inside = columns.inside.data();
    const double px = x[place], py = y[place], pz = z[place];
    std::int64_t all = 0, within = 0;
    for (const Stretch& stretch : stretches)
        for (std::size_t i = stretch.begin; i < stretch.end; ++i) {
            const double dx = x[i] - px, dy = y[i] - py, dz = z[i] - pz;
            const std::int64_t near = dx * dx + dy * dy + dz * dz <= reach2 ? 1 : 0;
            all += freeSize[i] > kOfOthers ? near : 0;
            within += inside[i] & near;
        }
    return {all, within};
}

class StepLabeller {
public:
    StepLabeller(const std::vector<StepPoint*>& points, int edge, const DensityRules& rules)
        : m_points(points),
          m_edge(edge),
          m_rules(rules),
          m_reach2(largestSquareWithin(rules.eps)),
          m_cells(points.size(), NeighbourRows::sideFor(rules.eps), [&](std::size_t i) -> CellList::Position {
              return {points[i]->getData(0), points[i]->getData(1), points[i]->getData(2)};
          }) {
        m_columns.x = m_cells.x().data();
        m_columns.y = m_cells.y().data();
        m_columns.z = m_cells.z().data();
        findStretches();
        countSizes();
        m_columns.freeSize = m_columns.size;
        m_columns.open.assign(m_cells.size(), 1);
        m_columns.inside.assign(m_cells.size(), 0);
        m_columns.examiner.assign(m_cells.size(), -1);
    }

    int run() {
        constexpr Place kNoPlace = std::numeric_limits<Place>::max();
        std::vector<Place> placeOf(m_points.size(), kNoPlace);
        for (std::size_t place = 0; place < m_cells.size(); ++place)
            placeOf[m_cells.index(place)] = static_cast<Place>(place);
        int clusterID = 1;
        for (std::size_t i = 0; i < m_points.size(); ++i) {
            if (placeOf[i] == kNoPlace) {  // a coordinate that is not finite: no neighbours
                m_points[i]->setSizeOfNeighbourhood(0);
                m_points[i]->setClusterID(0);
            } else if (labelOf(placeOf[i]) == -1 && expand(placeOf[i], clusterID)) {
                ++clusterID;
            }
        }
        for (std::size_t place = 0; place < m_cells.size(); ++place) {
            StepPoint& point = pointAt(place);
            point.setSizeOfNeighbourhood(static_cast<int>(m_columns.size[place]));
            const std::int64_t examiner = m_columns.examiner[place];
            if (examiner >= 0) point.setDistToCurrentPoint(&pointAt(static_cast<std::size_t>(examiner)));
        }
        return clusterID;
    }

private:
    struct Neighbour {
        double distance;
        Place place;
    };

    StepPoint& pointAt(std::size_t place) const { return *m_points[m_cells.index(place)]; }
    short labelOf(std::size_t place) const { return pointAt(place).getClusterID(); }
    Stretches stretchesAround(std::size_t place) const {
        const std::uint32_t box = m_boxOf[place];
        return {m_stretches.data() + m_firstStretch[box], m_stretches.data() + m_firstStretch[box + 1]};
    }

    /// Of each box, the rows around it that have points.
    void findStretches() {
        const std::vector<CellList::Box>& boxes = m_cells.boxes();
        m_boxOf.resize(m_cells.size());
        m_firstStretch.assign(1, 0);
        NeighbourRows rows(m_cells);
        for (std::size_t b = 0; b < boxes.size(); ++b) {
            std::fill(m_boxOf.begin() + boxes[b].begin, m_boxOf.begin() + boxes[b].end,
                      static_cast<Place>(b));
            const Stretches around = rows.around(b);
            m_stretches.insert(m_stretches.end(), around.begin(), around.end());
            m_firstStretch.push_back(m_stretches.size());
        }
    }

    void countSizes() {
        m_columns.size.resize(m_cells.size());
        for (std::size_t place = 0; place < m_cells.size(); ++place) {
            const std::int64_t count = countNeighbours(m_cells, stretchesAround(place), place, m_reach2);
            m_columns.size[place] = static_cast<double>(std::min<std::int64_t>(count, kMostCounted));
        }
    }

    /// The sizes within k2 and k1 of that of a start point.
    StepRange rangeAround(double size) const {
        double most = std::clamp(std::floor(size / m_rules.k1), size, double(kMostCounted));
        while (most > size && !(size > m_rules.k1 * most))
            most -= 1.0;
        while (most < kMostCounted && size > m_rules.k1 * (most + 1.0))
            most += 1.0;
        return {std::min(size, std::floor(m_rules.k2 * size) + 1.0), most};
    }
    bool isAlike(std::size_t place) const {
        return m_columns.size[place] >= m_range.least && m_columns.size[place] <= m_range.most;
    }

    /// By distance; at equal distances in the order of the grid's neighbourhoods: cube by cube, the first
    /// axis outermost, then as in the list.
    auto nearerFirst() const {
        return [this](const Neighbour& a, const Neighbour& b) {
            if (a.distance != b.distance) return a.distance < b.distance;
            const auto key = [this](Place place) {
                const auto cube = [this](double x) { return std::max(0.0, std::ceil(x / m_edge) - 1.0); };
                return std::tuple(cube(m_columns.x[place]), cube(m_columns.y[place]),
                                  cube(m_columns.z[place]), m_cells.index(place));
            };
            return key(a.place) < key(b.place);
        };
    }

    /// Whether a point of the step's density, in no earlier cluster, is a core point; fills m_census.
    bool isCore(std::size_t place) {
        const double size = m_columns.size[place];
        if (size < m_rules.minPts) return false;
        m_census = takeCensus(m_columns, stretchesAround(place), place, m_reach2, m_range);
        const double least = m_rules.k3 * size;
        if (static_cast<double>(m_census.alike) < least) return false;
        const auto inner = static_cast<std::int64_t>(m_rules.k4 * static_cast<double>(m_census.all));
        const std::int64_t surelyInner = m_census.alike - (m_census.all - inner);
        if (m_census.denser == 0 && m_census.all <= kMostCounted && static_cast<double>(surelyInner) >= least)
            return true;
        return isCoreByDistance(place, static_cast<std::size_t>(inner));
    }

    /// The same from the nearest neighbours themselves.
    bool isCoreByDistance(std::size_t place, std::size_t inner) {
        m_neighbours.clear();
        forEachNeighbour(place, [this](std::size_t other, double square) {
            m_neighbours.push_back({std::sqrt(square), static_cast<Place>(other)});
        });
        const auto end = m_neighbours.begin() + static_cast<std::ptrdiff_t>(inner);
        std::nth_element(m_neighbours.begin(), end, m_neighbours.end(), nearerFirst());
        double alike = 0.0;
        for (auto it = m_neighbours.begin(); it != end; ++it) {
            if (m_columns.size[it->place] > m_range.most) return false;
            const double size = m_columns.freeSize[it->place];
            alike += size >= m_range.least && size <= m_range.most ? 1.0 : 0.0;
        }
        const double size = m_columns.size[place];
        return m_rules.k3 * size <= alike && alike <= m_rules.k4 * size;
    }

    template <typename Visit>
    void forEachNeighbour(std::size_t place, Visit visit) const {
        const CellList::Position p{m_columns.x[place], m_columns.y[place], m_columns.z[place]};
        for (const Stretch& stretch : stretchesAround(place))
            for (std::size_t other = stretch.begin; other < stretch.end; ++other) {
                const double square = m_cells.squareDistance(other, p);
                if (square <= m_reach2) visit(other, square);
            }
    }

    bool expand(Place start, int clusterID) {
        const double size = m_columns.size[start];
        m_range = size < m_rules.minPts ? StepRange{} : rangeAround(size);
        const auto isFree = [this] {
            const auto all = static_cast<double>(m_census.all);
            return all - static_cast<double>(m_census.open) < m_rules.k3 * all;
        };
        if (clusterID > kMostClusters || !isCore(start) || !isFree()) {
            pointAt(start).setClusterID(0);
            return false;
        }
        const auto label = static_cast<short>(clusterID);
        m_members.clear();
        m_rim.clear();
        take(start, label);
        for (std::size_t next = 0; next < m_members.size(); ++next)
            if (isCore(m_members[next]) && m_census.open > 0) takeAround(m_members[next], label);
        takeRim(label);
        close();
        return true;
    }

    void take(Place place, short label) {
        pointAt(place).setClusterID(label);
        m_columns.open[place] = 0;
        m_columns.inside[place] = 1;
        m_members.push_back(place);
    }

    /// Takes the neighbours of the step's density, nearest first; the others are candidates of the rim.
    void takeAround(Place core, short label) {
        m_neighbours.clear();
        forEachNeighbour(core, [this](std::size_t other, double square) {
            if (m_columns.open[other] == 0) return;
            const auto place = static_cast<Place>(other);
            if (isAlike(other)) return m_neighbours.push_back({std::sqrt(square), place});
            m_columns.open[other] = 0;
            m_columns.inside[other] = 1;
            m_rim.push_back(place);
        });
        std::sort(m_neighbours.begin(), m_neighbours.end(), nearerFirst());
        for (const Neighbour& neighbour : m_neighbours)
            take(neighbour.place, label);
    }

    /// Takes the candidates that have no more than the share k3 of their neighbours out of the cluster's
    /// reach.
    void takeRim(short label) {
        const std::size_t own = m_members.size();
        for (const Place place : m_rim) {
            const auto [all, within] = countRim(m_columns, stretchesAround(place), place, m_reach2);
            const auto counted = static_cast<double>(all);
            if (counted - m_rules.k3 * counted <= static_cast<double>(within))
                m_members.push_back(place);
            else
                m_columns.open[place] = 1;
        }
        for (std::size_t i = own; i < m_members.size(); ++i)
            pointAt(m_members[i]).setClusterID(label);
    }

    void close() {
        for (const Place place : m_rim)
            m_columns.inside[place] = 0;
        for (const Place place : m_members) {
            m_columns.inside[place] = 0;
            m_columns.freeSize[place] = kOfOthers;
        }
    }

    const std::vector<StepPoint*>& m_points;
    int m_edge;
    DensityRules m_rules;
    double m_reach2;
    CellList m_cells;
    StepColumns m_columns;
    std::vector<std::uint32_t> m_boxOf;       // by place
    std::vector<Stretch> m_stretches;         // box by box
    std::vector<std::size_t> m_firstStretch;  // by box
    StepRange m_range{};                      // of the cluster that grows
    Census m_census;                          // of the point examined last
    std::vector<Neighbour> m_neighbours;
    std::vector<Place> m_members;
    std::vector<Place> m_rim;
};

}  // namespace

int labelDensitySteps(const std::vector<StepPoint*>& points, int edge, const DensityRules& rules) {
    return StepLabeller(points, edge, rules).run();
}

}  // namespace VRK::detail
