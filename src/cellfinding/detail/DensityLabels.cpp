#include "cellfinding/detail/DensityLabels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <optional>

#include "cellfinding/detail/CellList.h"
#include "cellfinding/detail/NeighbourRows.h"

namespace VRK::detail {
namespace {

using Box = CellList::Box;
using Position = CellList::Position;
using Stretches = NeighbourRows::Stretches;

/// Boxes up to two steps away can hold neighbours.
constexpr int kSteps = 2;

/// A row of boxes along x, counted from the box' own.
struct Row {
    int y;
    int z;
    std::int64_t keyStep() const {
        return (std::int64_t(z) * (std::int64_t(1) << CellList::kBits) + y) *
               (std::int64_t(1) << CellList::kBits);
    }
    bool isEarlier() const { return z < 0 || (z == 0 && y <= 0); }
};

constexpr std::size_t kRows = (2 * kSteps + 1) * (2 * kSteps + 1);

/// Nearest first: most neighbours are found there.
constexpr std::array<Row, kRows> rowsAround() {
    std::array<Row, kRows> rows{};
    std::size_t count = 0;
    for (int distance = 0; distance <= 2 * kSteps * kSteps; ++distance)
        for (int z = -kSteps; z <= kSteps; ++z)
            for (int y = -kSteps; y <= kSteps; ++y)
                if (y * y + z * z == distance) rows[count++] = {y, z};
    return rows;
}
constexpr std::array<Row, kRows> kRowsAround = rowsAround();

/// Boxes [begin, end) of the list.
struct BoxRange {
    std::size_t begin = 0;
    std::size_t end = 0;
};

/// For each box, what the boxes up to two steps away from it count together, or more where it would take long
/// to tell: sums along x, y and z, one after the other.
class CountsAround {
public:
    CountsAround(const CellList& cells, const std::vector<std::uint32_t>& counts)
        : m_boxes(cells.boxes()),
          m_counts(counts),
          m_around(m_boxes.size(), std::numeric_limits<std::uint32_t>::max()) {
        constexpr std::uint64_t kMostAlong = 1 << 12;
        constexpr std::uint64_t kMostEmpty = 50;  // boxes beside one that has points
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (cells.boxesAlong(axis) > kMostAlong) return;
            m_size[axis] = static_cast<std::size_t>(cells.boxesAlong(axis));
        }
        if (m_size[0] * m_size[1] * m_size[2] > kMostEmpty * m_boxes.size()) return;
        m_stride = m_size[0] + 2 * kSteps;
        for (auto& plane : m_planes)
            plane.assign(m_stride * (m_size[1] + 2 * kSteps), 0);
        m_along.assign(m_planes[0].size(), 0);
        for (std::size_t z = 0; z < m_size[2] + kSteps; ++z) {
            fill(z);
            if (z >= kSteps) tell(z - kSteps);
        }
    }

    std::uint32_t operator[](std::size_t box) const { return m_around[box]; }

private:
    static constexpr std::size_t kPlanes = 2 * kSteps + 1;
    using Plane = std::vector<std::uint32_t>;

    std::size_t placeOf(const Box& box) const {
        return static_cast<std::size_t>(CellList::coordinate(box.key, 1) + kSteps) * m_stride +
               static_cast<std::size_t>(CellList::coordinate(box.key, 0) + kSteps);
    }
    bool isIn(std::size_t box, std::size_t z) const {
        return box < m_boxes.size() &&
               static_cast<std::size_t>(CellList::coordinate(m_boxes[box].key, 2)) == z;
    }

    /// Sums of 5 x 5 boxes of a plane, with a border of empty ones.
    void fill(std::size_t z) {
        Plane& plane = m_planes[z % kPlanes];
        std::fill(plane.begin(), plane.end(), 0);
        if (!isIn(m_filled, z)) return;
        for (; isIn(m_filled, z); ++m_filled)
            plane[placeOf(m_boxes[m_filled])] = m_counts[m_filled];
        addFive(plane, 1, m_along);
        addFive(m_along, m_stride, plane);
    }
    static void addFive(const Plane& in, std::size_t step, Plane& out) {
        const std::uint32_t* from = in.data();
        std::uint32_t* to = out.data() + kSteps * step;
        for (std::size_t i = 0; i + 2 * kSteps * step < in.size(); ++i)
            to[i] = from[i] + from[i + step] + from[i + 2 * step] + from[i + 3 * step] + from[i + 4 * step];
    }
    void tell(std::size_t z) {
        for (; isIn(m_told, z); ++m_told) {
            const std::size_t place = placeOf(m_boxes[m_told]);
            m_around[m_told] = 0;
            for (const Plane& plane : m_planes)
                m_around[m_told] += plane[place];
        }
    }

    const std::vector<Box>& m_boxes;
    const std::vector<std::uint32_t>& m_counts;
    std::vector<std::uint32_t> m_around;
    std::array<std::size_t, 3> m_size{};
    std::size_t m_stride = 0;
    std::array<Plane, kPlanes> m_planes;
    Plane m_along;
    std::size_t m_filled = 0;
    std::size_t m_told = 0;
};

/// The boxes up to two steps away from one box after the other, row by row. Both ends of each row only
/// move forward, and far when boxes were left out.
class Surroundings {
public:
    explicit Surroundings(const std::vector<Box>& boxes) : m_boxes(boxes) {}

    /// \p box must not come before the one of the last call for this row.
    BoxRange row(std::size_t r, const Box& box) {
        BoxRange& range = m_ranges[r];
        // Below coordinate 0 this borrows from the next one and lands where no box is: boxes use half of
        // the range of a coordinate.
        const std::int64_t first = static_cast<std::int64_t>(box.key) + kRowsAround[r].keyStep() - kSteps;
        const std::int64_t last = first + 2 * kSteps;
        range.begin = firstFrom(range.begin, first);
        range.end = firstFrom(std::max(range.begin, range.end), last + 1);
        return range;
    }

private:
    std::int64_t keyAt(std::size_t b) const { return static_cast<std::int64_t>(m_boxes[b].key); }
    /// The first box from this one on whose key is not below, which mostly is near.
    std::size_t firstFrom(std::size_t b, std::int64_t key) const {
        std::size_t step = 1;
        for (; b + step <= m_boxes.size() && keyAt(b + step - 1) < key; step *= 2)
            b += step;
        const auto begin = m_boxes.begin() + static_cast<std::ptrdiff_t>(b);
        const auto end = m_boxes.begin() + static_cast<std::ptrdiff_t>(std::min(b + step, m_boxes.size()));
        if (step == 1) return b;
        return static_cast<std::size_t>(
            std::partition_point(begin, end,
                                 [key](const Box& box) { return static_cast<std::int64_t>(box.key) < key; }) -
            m_boxes.begin());
    }

    const std::vector<Box>& m_boxes;
    std::array<BoxRange, kRows> m_ranges{};
};

/// All bits of the marks within reach of the point at a place.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
std::uint64_t
uniteMarks(const double* x, const double* y, const double* z, const std::uint64_t* marks, Stretches stretches,
           std::size_t place, double reach2) {
    const double px = x[place], py = y[place], pz = z[place];
    std::uint64_t together = 0;
    for (const NeighbourRows::Stretch& stretch : stretches)
        for (std::size_t i = stretch.begin; i < stretch.end; ++i) {
            const double dx = x[i] - px, dy = y[i] - py, dz = z[i] - pz;
            together |= dx * dx + dy * dy + dz * dz <= reach2 ? marks[i] : 0;
        }
    return together;
}

class Labeller {
public:
    Labeller(const CellList& cells, double eps, int minPts)
        : m_cells(cells),
          m_boxes(cells.boxes()),
          m_eps(eps),
          m_reach2(largestSquareWithin(eps)),
          m_minPts(static_cast<std::size_t>(minPts)),
          m_core(cells.size(), 0),
          m_coreCount(cells.boxes().size(), 0),
          m_parent(cells.boxes().size()) {
        std::iota(m_parent.begin(), m_parent.end(), std::uint32_t(0));
    }

    std::vector<int> run(std::size_t count) {
        findCorePoints();
        joinBoxes();
        std::vector<int> labels(count, 0);
        labelCorePoints(labels);
        labelBorderPoints(labels);
        return labels;
    }

private:
    static constexpr char kOpen = 2;

    Position positionOf(std::size_t place) const {
        return {m_cells.x()[place], m_cells.y()[place], m_cells.z()[place]};
    }
    std::size_t sizeOf(const Box& box) const { return box.end - box.begin; }

    void findCorePoints() {
        for (std::size_t b = 0; b < m_boxes.size(); ++b)
            m_coreCount[b] = m_boxes[b].end - m_boxes[b].begin;
        const CountsAround around(m_cells, m_coreCount);
        std::size_t open = 0;
        for (std::size_t b = 0; b < m_boxes.size(); ++b) {
            const Box& box = m_boxes[b];
            if (around[b] < m_minPts) continue;
            const bool isFull = sizeOf(box) >= m_minPts;
            std::fill(m_core.begin() + box.begin, m_core.begin() + box.end, isFull ? char(1) : kOpen);
            open += isFull ? 0 : sizeOf(box);
        }
        if (open > 0) countNeighboursOfOpen();
        for (std::size_t b = 0; b < m_boxes.size(); ++b)
            m_coreCount[b] = static_cast<std::uint32_t>(
                std::count(m_core.begin() + m_boxes[b].begin, m_core.begin() + m_boxes[b].end, char(1)));
    }

    void countNeighboursOfOpen() {
        const CellList& cells = wideCells();
        const auto enough = static_cast<std::int64_t>(m_minPts);
        forEachOpen([&](std::size_t i, Stretches stretches) {
            const bool isCore = countNeighbours(cells, stretches, i, m_reach2, enough) >= enough;
            m_core[cells.index(i)] = isCore ? char(1) : char(0);
        });
    }

    /// Calls visit(place of the wide boxes, stretches around it) for the points that are open.
    template <typename Visit>
    void forEachOpen(Visit visit) {
        const CellList& cells = wideCells();
        NeighbourRows rows(cells);
        for (std::size_t b = 0; b < cells.boxes().size(); ++b) {
            Stretches stretches;
            for (std::size_t i = cells.boxes()[b].begin; i < cells.boxes()[b].end; ++i) {
                if (m_core[cells.index(i)] != kOpen) continue;
                if (stretches.empty()) stretches = rows.around(b);
                visit(i, stretches);
            }
        }
    }

    std::uint32_t rootOf(std::uint32_t b) {
        while (m_parent[b] != b)
            b = m_parent[b] = m_parent[m_parent[b]];
        return b;
    }

    void joinBoxes() {
        for (std::size_t b = 0; b < m_boxes.size(); ++b)
            if (m_coreCount[b] > 0) {
                m_coreBoxes.push_back(m_boxes[b]);
                m_numberOfCoreBox.push_back(static_cast<std::uint32_t>(b));
            }
        Surroundings surroundings(m_coreBoxes);
        for (std::size_t core = 0; core < m_coreBoxes.size(); ++core)
            for (std::size_t r = 0; r < kRows; ++r) {
                if (!kRowsAround[r].isEarlier()) continue;
                const BoxRange row = surroundings.row(r, m_coreBoxes[core]);
                for (std::size_t other = row.begin; other < std::min(row.end, core); ++other)
                    join(m_numberOfCoreBox[core], m_numberOfCoreBox[other]);
            }
    }

    void join(std::uint32_t a, std::uint32_t b) {
        const std::uint32_t here = rootOf(a);
        const std::uint32_t there = rootOf(b);
        if (here != there && haveClosePair(m_boxes[a], m_boxes[b]))
            m_parent[std::max(here, there)] = std::min(here, there);
    }

    bool haveClosePair(const Box& a, const Box& b) const {
        for (std::size_t i = a.begin; i < a.end; ++i) {
            if (!m_core[i]) continue;
            const Position p = positionOf(i);
            for (std::size_t j = b.begin; j < b.end; ++j)
                if (m_core[j] && m_cells.squareDistance(j, p) <= m_reach2) return true;
        }
        return false;
    }

    /// Numbers the sets of boxes by their first core point in the order of the list.
    void labelCorePoints(std::vector<int>& labels) {
        std::vector<std::uint32_t> boxOf(labels.size(), 0);
        for (std::size_t b = 0; b < m_boxes.size(); ++b)
            for (std::size_t place = m_boxes[b].begin; place < m_boxes[b].end; ++place)
                if (m_core[place]) boxOf[m_cells.index(place)] = static_cast<std::uint32_t>(b + 1);
        std::vector<int> numberOf(m_boxes.size(), 0);  // by root
        int numbers = 0;
        for (std::size_t i = 0; i < labels.size(); ++i) {
            if (boxOf[i] == 0) continue;
            int& number = numberOf[rootOf(boxOf[i] - 1)];
            if (number == 0) number = ++numbers;
            labels[i] = number;
        }
    }

    void labelBorderPoints(std::vector<int>& labels) {
        const CountsAround around(m_cells, m_coreCount);
        bool anyOpen = false;
        for (std::size_t b = 0; b < m_boxes.size(); ++b) {
            const Box& box = m_boxes[b];
            if (m_coreCount[b] == sizeOf(box) || around[b] == 0) continue;
            anyOpen = true;
            std::replace(m_core.begin() + box.begin, m_core.begin() + box.end, char(0), kOpen);
        }
        if (!anyOpen || m_coreBoxes.empty()) return;
        const CellList& cells = wideCells();
        const std::vector<std::uint64_t> marks = marksOf(cells, labels);
        forEachOpen([&](std::size_t i, Stretches stretches) {
            labels[m_cells.index(cells.index(i))] = firstClusterNear(marks, stretches, i);
        });
    }

    /// Of core points, the number of the cluster, and its complement in the upper half.
    std::vector<std::uint64_t> marksOf(const CellList& cells, const std::vector<int>& labels) const {
        std::vector<std::uint64_t> marks(cells.size());
        for (std::size_t i = 0; i < marks.size(); ++i) {
            const auto number = static_cast<std::uint32_t>(labels[m_cells.index(cells.index(i))]);
            if (number != 0) marks[i] = std::uint64_t(~number) << 32 | number;
        }
        return marks;
    }

    int firstClusterNear(const std::vector<std::uint64_t>& marks, Stretches stretches, std::size_t i) {
        const CellList& cells = wideCells();
        const std::uint64_t together = uniteMarks(cells.x().data(), cells.y().data(), cells.z().data(),
                                                  marks.data(), stretches, i, m_reach2);
        const auto number = static_cast<std::uint32_t>(together);
        if (together == 0 || static_cast<std::uint32_t>(together >> 32) == ~number)
            return static_cast<int>(number);
        const Position p{cells.x()[i], cells.y()[i], cells.z()[i]};
        std::uint32_t first = std::numeric_limits<std::uint32_t>::max();
        for (const NeighbourRows::Stretch& stretch : stretches)
            for (std::size_t other = stretch.begin; other < stretch.end; ++other)
                if (marks[other] != 0 && cells.squareDistance(other, p) <= m_reach2)
                    first = std::min(first, static_cast<std::uint32_t>(marks[other]));
        return static_cast<int>(first);
    }

    /// The points by place here in boxes as large as eps, where the candidates of a neighbourhood are few and
    /// long stretches.
    const CellList& wideCells() {
        if (!m_wideCells)
            m_wideCells.emplace(m_cells.size(), NeighbourRows::sideFor(m_eps),
                                [this](std::size_t place) { return positionOf(place); });
        return *m_wideCells;
    }

    const CellList& m_cells;
    const std::vector<Box>& m_boxes;
    double m_eps;
    double m_reach2;
    std::size_t m_minPts;
    std::vector<char> m_core;                // by place: 1 for core points
    std::vector<std::uint32_t> m_coreCount;  // by box
    std::vector<std::uint32_t> m_parent;     // sets of boxes joined by core points
    std::vector<Box> m_coreBoxes;            // boxes with core points
    std::vector<std::uint32_t> m_numberOfCoreBox;
    std::optional<CellList> m_wideCells;
};

}  // namespace

std::vector<int> densityLabels(const std::vector<ClusterPoint<double>*>& points, double eps, int minPts) {
    const int dimension = points.front()->getDimension();
    // The margin exceeds what rounding adds to a diagonal.
    const double side = eps / std::sqrt(static_cast<double>(dimension)) * (1.0 - 1e-6);
    const CellList cells(points.size(), side, [&](std::size_t i) -> Position {
        const ClusterPoint<double>& p = *points[i];
        return {p.getData(0), p.getData(1), p.getData(2)};
    });
    if (cells.side() > side) return {};
    return Labeller(cells, eps, minPts).run(points.size());
}

}  // namespace VRK::detail
