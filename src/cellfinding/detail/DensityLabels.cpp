#include "cellfinding/detail/DensityLabels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "cellfinding/detail/CellList.h"

namespace VRK::detail {
namespace {

using Box = CellList::Box;
using Position = CellList::Position;

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

/// The boxes up to two steps away from one box after the other, row by row. Both ends of each row only
/// move forward, so all boxes together cost one pass per row.
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
        while (range.begin < m_boxes.size() && keyAt(range.begin) < first)
            ++range.begin;
        range.end = std::max(range.begin, range.end);
        while (range.end < m_boxes.size() && keyAt(range.end) <= last)
            ++range.end;
        return range;
    }

    std::array<BoxRange, kRows> all(const Box& box) {
        std::array<BoxRange, kRows> rows;
        for (std::size_t r = 0; r < kRows; ++r)
            rows[r] = row(r, box);
        return rows;
    }

private:
    std::int64_t keyAt(std::size_t b) const { return static_cast<std::int64_t>(m_boxes[b].key); }

    const std::vector<Box>& m_boxes;
    std::array<BoxRange, kRows> m_ranges{};
};

class Labeller {
public:
    Labeller(const CellList& cells, double eps, int minPts)
        : m_cells(cells),
          m_boxes(cells.boxes()),
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
    Position positionOf(std::size_t place) const {
        return {m_cells.x()[place], m_cells.y()[place], m_cells.z()[place]};
    }
    std::size_t sizeOf(const Box& box) const { return box.end - box.begin; }

    void findCorePoints() {
        Surroundings surroundings(m_boxes);
        for (std::size_t b = 0; b < m_boxes.size(); ++b) {
            const Box& box = m_boxes[b];
            if (sizeOf(box) >= m_minPts) {
                std::fill(m_core.begin() + box.begin, m_core.begin() + box.end, char(1));
                m_coreCount[b] = box.end - box.begin;
                continue;
            }
            const auto rows = surroundings.all(box);
            std::size_t near = 0;
            for (const BoxRange& row : rows)
                if (row.begin < row.end) near += m_boxes[row.end - 1].end - m_boxes[row.begin].begin;
            if (near < m_minPts) continue;
            for (std::size_t place = box.begin; place < box.end; ++place)
                if (hasEnoughNeighbours(place, rows)) {
                    m_core[place] = 1;
                    ++m_coreCount[b];
                }
        }
    }

    bool hasEnoughNeighbours(std::size_t place, const std::array<BoxRange, kRows>& rows) const {
        const Position p = positionOf(place);
        std::size_t found = 0;
        for (const BoxRange& row : rows) {
            if (row.begin == row.end) continue;
            const std::size_t end = m_boxes[row.end - 1].end;
            for (std::size_t other = m_boxes[row.begin].begin; other < end; ++other)
                found += m_cells.squareDistance(other, p) <= m_reach2;
            if (found >= m_minPts) return true;
        }
        return false;
    }

    std::uint32_t rootOf(std::uint32_t b) {
        while (m_parent[b] != b)
            b = m_parent[b] = m_parent[m_parent[b]];
        return b;
    }

    void joinBoxes() {
        Surroundings surroundings(m_boxes);
        for (std::size_t b = 0; b < m_boxes.size(); ++b) {
            if (m_coreCount[b] == 0) continue;
            for (std::size_t r = 0; r < kRows; ++r) {
                if (!kRowsAround[r].isEarlier()) continue;
                const BoxRange row = surroundings.row(r, m_boxes[b]);
                for (std::size_t other = row.begin; other < std::min(row.end, b); ++other)
                    if (m_coreCount[other] > 0) join(b, other);
            }
        }
    }

    void join(std::size_t a, std::size_t b) {
        const std::uint32_t here = rootOf(static_cast<std::uint32_t>(a));
        const std::uint32_t there = rootOf(static_cast<std::uint32_t>(b));
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
        m_number.assign(m_boxes.size(), 0);
        int numbers = 0;
        for (std::size_t i = 0; i < labels.size(); ++i) {
            if (boxOf[i] == 0) continue;
            int& number = m_number[rootOf(boxOf[i] - 1)];
            if (number == 0) number = ++numbers;
            labels[i] = number;
        }
        for (std::size_t b = 0; b < m_boxes.size(); ++b)
            m_number[b] = m_number[rootOf(static_cast<std::uint32_t>(b))];
    }

    void labelBorderPoints(std::vector<int>& labels) const {
        Surroundings surroundings(m_boxes);
        for (std::size_t b = 0; b < m_boxes.size(); ++b) {
            const Box& box = m_boxes[b];
            if (m_coreCount[b] == sizeOf(box)) continue;
            const auto rows = surroundings.all(box);
            for (std::size_t place = box.begin; place < box.end; ++place)
                if (!m_core[place]) labels[m_cells.index(place)] = firstClusterNear(place, rows);
        }
    }

    int firstClusterNear(std::size_t place, const std::array<BoxRange, kRows>& rows) const {
        const Position p = positionOf(place);
        int first = 0;
        for (const BoxRange& row : rows)
            for (std::size_t b = row.begin; b < row.end; ++b) {
                const int number = m_number[b];
                if (number == 0 || (first != 0 && number >= first)) continue;
                for (std::size_t other = m_boxes[b].begin; other < m_boxes[b].end; ++other)
                    if (m_core[other] && m_cells.squareDistance(other, p) <= m_reach2) {
                        first = number;
                        break;
                    }
            }
        return first;
    }

    const CellList& m_cells;
    const std::vector<Box>& m_boxes;
    double m_reach2;
    std::size_t m_minPts;
    std::vector<char> m_core;                // by place
    std::vector<std::uint32_t> m_coreCount;  // by box
    std::vector<std::uint32_t> m_parent;     // sets of boxes joined by core points
    std::vector<int> m_number;               // of each box' set
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
