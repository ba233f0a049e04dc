/// \file
/// Points sorted into small boxes over their true bounds, for searches within a radius.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace VRK::detail {

/// The largest square sum whose root is below \p radius: comparing with it decides like the distance itself.
double largestSquareWithin(double radius);

/// Up to 2^32 points in space (in the plane with a constant third coordinate), sorted by box: x runs fastest,
/// so the boxes of a row lie one after the other. Boxes without points take no memory. Points with a
/// coordinate that is not finite are left out: no distance to them is below a radius.
class CellList {
public:
    using Position = std::array<double, 3>;

    /// A box and where its points are.
    struct Box {
        std::uint64_t key;
        std::uint32_t begin;
        std::uint32_t end;
    };

    /// \p position(i) tells the position of point i. The boxes' \p side grows where the bounds span more
    /// than 2^20 of them.
    template <typename PositionOf>
    CellList(std::size_t count, double side, PositionOf position);

    double side() const { return m_side; }
    std::size_t size() const { return m_index.size(); }
    const std::vector<Box>& boxes() const { return m_boxes; }
    /// Original index of the point at a sorted place.
    std::uint32_t index(std::size_t place) const { return m_index[place]; }
    const std::vector<double>& x() const { return m_x; }
    const std::vector<double>& y() const { return m_y; }
    const std::vector<double>& z() const { return m_z; }
    /// Boxes along an axis, empty ones included.
    std::uint64_t boxesAlong(std::size_t axis) const { return static_cast<std::uint64_t>(m_last[axis]) + 1; }
    /// Extent of the points along an axis, in units of the coordinates.
    double extent(std::size_t axis) const { return m_extent[axis]; }

    double squareDistance(std::size_t place, const Position& to) const {
        const double dx = m_x[place] - to[0];
        const double dy = m_y[place] - to[1];
        const double dz = m_z[place] - to[2];
        return dx * dx + dy * dy + dz * dz;
    }

    /// Calls visit(place, square) for every point within the square sum \p reach2 =
    /// largestSquareWithin(radius) of \p centre, row by row.
    template <typename Visit>
    void visitBall(const Position& centre, double radius, double reach2, Visit visit) const;
    /// Calls visit(begin, end) for stretches of places, ascending, that hold every point within a radius of
    /// \p centre, and others.
    template <typename Visit>
    void forEachStretch(const Position& centre, double radius, Visit visit) const;
    /// The same for the points within a radius of any place between two corners.
    template <typename Visit>
    void forEachStretch(const Position& low, const Position& high, double radius, Visit visit) const;

    static constexpr int kBits = 21;
    static std::uint64_t keyOf(std::uint64_t cx, std::uint64_t cy, std::uint64_t cz) {
        return cz << (2 * kBits) | cy << kBits | cx;
    }
    static std::int64_t coordinate(std::uint64_t key, int axis) {
        return static_cast<std::int64_t>(key >> (axis * kBits) & ((std::uint64_t(1) << kBits) - 1));
    }

private:
    struct Entry {
        std::uint64_t key;
        std::uint32_t index;
    };

    void setBounds(const Position& min, const Position& max, double side);
    std::uint64_t boxOf(double x, std::size_t axis) const {
        return m_last[axis] == 0 ? 0 : static_cast<std::uint64_t>((x - m_min[axis]) / m_side);
    }
    void sortEntries(std::vector<Entry>& entries) const;
    void makeBoxes(const std::vector<Entry>& entries);
    /// The boxes of an axis that the interval around x may touch; empty when from > to.
    struct Interval {
        std::int64_t from;
        std::int64_t to;
    };
    Interval boxesAround(double x, double radius, std::size_t axis) const;
    /// Rows of more boxes are cut to the ball.
    static constexpr std::int64_t kLongRow = 8;
    /// The square of what lies between a box and an interval along an axis, or less.
    double squareGap(std::int64_t box, double low, double high, std::size_t axis) const;
    template <typename Visit>
    void visitPlaces(std::size_t begin, std::size_t end, const Position& centre, double reach2,
                     Visit& visit) const {
        for (std::size_t place = begin; place < end; ++place) {
            const double square = squareDistance(place, centre);
            if (square <= reach2) visit(place, square);
        }
    }

    double m_side = 1.0;
    Position m_min{};
    Position m_extent{};
    std::array<std::int64_t, 3> m_last{};
    std::vector<Box> m_boxes;
    std::vector<std::uint32_t> m_index;
    std::vector<double> m_x, m_y, m_z;
};

template <typename PositionOf>
CellList::CellList(std::size_t count, double side, PositionOf position) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const auto isFinite = [](const Position& p) {
        return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
    };
    Position min{kInfinity, kInfinity, kInfinity};
    Position max{-kInfinity, -kInfinity, -kInfinity};
    std::size_t finite = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const Position p = position(i);
        if (!isFinite(p)) continue;
        ++finite;
        for (std::size_t k = 0; k < 3; ++k) {
            min[k] = std::min(min[k], p[k]);
            max[k] = std::max(max[k], p[k]);
        }
    }
    if (finite == 0) return;
    setBounds(min, max, side);

    std::vector<Entry> entries;
    entries.reserve(finite);
    for (std::size_t i = 0; i < count; ++i) {
        const Position p = position(i);
        if (isFinite(p))
            entries.push_back(
                {keyOf(boxOf(p[0], 0), boxOf(p[1], 1), boxOf(p[2], 2)), static_cast<std::uint32_t>(i)});
    }
    sortEntries(entries);
    makeBoxes(entries);
    m_x.reserve(finite);
    m_y.reserve(finite);
    m_z.reserve(finite);
    for (const std::uint32_t i : m_index) {
        const Position p = position(i);
        m_x.push_back(p[0]);
        m_y.push_back(p[1]);
        m_z.push_back(p[2]);
    }
}

template <typename Visit>
void CellList::visitBall(const Position& centre, double radius, double reach2, Visit visit) const {
    forEachStretch(centre, radius, [&](std::size_t begin, std::size_t end) {
        visitPlaces(begin, end, centre, reach2, visit);
    });
}

template <typename Visit>
void CellList::forEachStretch(const Position& centre, double radius, Visit visit) const {
    forEachStretch(centre, centre, radius, visit);
}

template <typename Visit>
void CellList::forEachStretch(const Position& low, const Position& high, double radius, Visit visit) const {
    const auto boxes = [&](std::size_t axis, double reach) {
        return boxesAround(0.5 * (low[axis] + high[axis]), 0.5 * (high[axis] - low[axis]) + reach, axis);
    };
    const Interval x = boxes(0, radius);
    const Interval y = boxes(1, radius);
    const Interval z = boxes(2, radius);
    if (m_boxes.empty() || x.from > x.to || y.from > y.to || z.from > z.to) return;
    const auto rows =
        static_cast<std::uint64_t>(y.to - y.from + 1) * static_cast<std::uint64_t>(z.to - z.from + 1);
    if (rows >= m_boxes.size()) return visit(std::size_t(0), size());
    const auto key = [](std::int64_t cx, std::int64_t cy, std::int64_t cz) {
        return keyOf(static_cast<std::uint64_t>(cx), static_cast<std::uint64_t>(cy),
                     static_cast<std::uint64_t>(cz));
    };
    const auto before = [](const Box& box, std::uint64_t k) { return box.key < k; };
    const bool isLong = x.to - x.from >= kLongRow;
    for (std::int64_t cz = z.from; cz <= z.to; ++cz) {
        // One search per plane: the rows of a plane follow each other.
        auto box = std::lower_bound(m_boxes.begin(), m_boxes.end(), key(x.from, y.from, cz), before);
        for (std::int64_t cy = y.from; cy <= y.to; ++cy) {
            Interval row = x;
            if (isLong) {
                const double left = radius * radius * (1.0 + 1e-9) - squareGap(cy, low[1], high[1], 1) -
                                    squareGap(cz, low[2], high[2], 2);
                if (left < 0.0) continue;
                row = boxes(0, std::sqrt(left));
                if (row.from > row.to) continue;
            }
            const std::uint64_t first = key(row.from, cy, cz);
            const std::uint64_t last = key(row.to, cy, cz);
            box = std::lower_bound(box, m_boxes.end(), first, before);
            if (box == m_boxes.end()) break;
            const std::size_t begin = box->begin;
            std::size_t end = begin;
            for (; box != m_boxes.end() && box->key <= last; ++box)
                end = box->end;
            if (begin < end) visit(begin, end);
        }
    }
}

}  // namespace VRK::detail
