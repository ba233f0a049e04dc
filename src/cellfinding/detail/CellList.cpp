#include "cellfinding/detail/CellList.h"

namespace VRK::detail {

double largestSquareWithin(double radius) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    double square = radius * radius;
    while (square > 0.0 && !(std::sqrt(square) < radius))
        square = std::nextafter(square, 0.0);
    while (std::sqrt(std::nextafter(square, kInfinity)) < radius)
        square = std::nextafter(square, kInfinity);
    return square;
}

void CellList::setBounds(const Position& min, const Position& max, double side) {
    constexpr double kMostBoxes = 1 << (kBits - 1);
    m_min = min;
    m_side = side;
    for (std::size_t k = 0; k < 3; ++k) {
        m_extent[k] = max[k] - min[k];
        if (std::isfinite(m_extent[k])) m_side = std::max(m_side, m_extent[k] / kMostBoxes);
    }
    // An extent beyond the range of double stays one box.
    for (std::size_t k = 0; k < 3; ++k)
        m_last[k] = std::isfinite(m_extent[k]) ? static_cast<std::int64_t>(m_extent[k] / m_side) : 0;
}

/// By key, and by index within a box, the order that they come in: by each coordinate of the boxes in turn.
void CellList::sortEntries(std::vector<Entry>& entries) const {
    const std::uint64_t longest = std::max({boxesAlong(0), boxesAlong(1), boxesAlong(2)});
    if (longest > entries.size()) {
        std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
            return a.key != b.key ? a.key < b.key : a.index < b.index;
        });
        return;
    }
    std::vector<Entry> sorted(entries.size());
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<std::uint32_t> begin(static_cast<std::size_t>(longest) + 1);
        const auto boxOf = [axis](const Entry& entry) {
            return static_cast<std::size_t>(coordinate(entry.key, axis));
        };
        for (const Entry& entry : entries)
            ++begin[boxOf(entry) + 1];
        for (std::size_t box = 1; box < begin.size(); ++box)
            begin[box] += begin[box - 1];
        for (const Entry& entry : entries)
            sorted[begin[boxOf(entry)]++] = entry;
        entries.swap(sorted);
    }
}

void CellList::makeBoxes(const std::vector<Entry>& entries) {
    m_index.reserve(entries.size());
    for (std::size_t place = 0; place < entries.size(); ++place) {
        const auto here = static_cast<std::uint32_t>(place);
        if (m_boxes.empty() || m_boxes.back().key != entries[place].key)
            m_boxes.push_back({entries[place].key, here, here});
        m_boxes.back().end = here + 1;
        m_index.push_back(entries[place].index);
    }
}

double CellList::squareGap(std::int64_t box, double low, double high, std::size_t axis) const {
    if (m_last[axis] == 0) return 0.0;
    const double from = (low - m_min[axis]) / m_side;
    const double to = (high - m_min[axis]) / m_side;
    const double slack = 1e-6 + 1e-12 * (std::abs(from) + std::abs(to));
    const double first = static_cast<double>(box);
    const double gap = std::max({0.0, first - to - slack, from - (first + 1.0) - slack}) * m_side;
    return gap * gap;
}

CellList::Interval CellList::boxesAround(double x, double radius, std::size_t axis) const {
    if (m_last[axis] == 0) return {0, 0};
    // Wider than rounding can shift a box.
    const double offset = x - m_min[axis];
    const double slack = 1e-6 + 1e-12 * (std::abs(offset) + radius) / m_side;
    const double last = static_cast<double>(m_last[axis]);
    const double from = std::floor((offset - radius) / m_side - slack);
    const double to = std::floor((offset + radius) / m_side + slack);
    if (!(from <= last && to >= 0.0)) return {0, -1};
    return {static_cast<std::int64_t>(std::max(from, 0.0)), static_cast<std::int64_t>(std::min(to, last))};
}

}  // namespace VRK::detail
