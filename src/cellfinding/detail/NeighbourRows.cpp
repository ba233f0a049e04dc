#include "cellfinding/detail/NeighbourRows.h"

#include <algorithm>

namespace VRK::detail {
namespace {

struct RowStep {
    int y;
    int z;
};
constexpr std::array<RowStep, 9> kRowSteps{
    {{0, 0}, {-1, 0}, {1, 0}, {0, -1}, {0, 1}, {-1, -1}, {1, -1}, {-1, 1}, {1, 1}}};

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
std::int64_t
countWithin(const double* x, const double* y, const double* z, NeighbourRows::Stretches stretches,
            std::size_t place, double reach2, std::int64_t enough) {
    const double px = x[place], py = y[place], pz = z[place];
    std::int64_t count = 0;
    for (const NeighbourRows::Stretch& stretch : stretches) {
        for (std::size_t i = stretch.begin; i < stretch.end; ++i) {
            const double dx = x[i] - px, dy = y[i] - py, dz = z[i] - pz;
            count += dx * dx + dy * dy + dz * dz <= reach2 ? 1 : 0;
        }
        if (count >= enough) break;
    }
    return count;
}

}  // namespace

NeighbourRows::Stretches NeighbourRows::around(std::size_t box) {
    const std::vector<CellList::Box>& boxes = m_cells.boxes();
    std::size_t count = 0;
    for (std::size_t row = 0; row < kRows; ++row) {
        const std::int64_t rowSteps =
            (kRowSteps[row].z * (std::int64_t(1) << CellList::kBits) + kRowSteps[row].y) *
            (std::int64_t(1) << CellList::kBits);
        const std::int64_t first = keyAt(box) + rowSteps - 1;
        std::size_t& from = m_from[row];
        std::size_t& to = m_to[row];
        while (from < boxes.size() && keyAt(from) < first)
            ++from;
        to = std::max(to, from);
        while (to < boxes.size() && keyAt(to) <= first + 2)
            ++to;
        if (from < to) m_stretches[count++] = {boxes[from].begin, boxes[to - 1].end};
    }
    return {m_stretches.data(), count};
}

std::int64_t countNeighbours(const CellList& cells, NeighbourRows::Stretches stretches, std::size_t place,
                             double reach2, std::int64_t enough) {
    return countWithin(cells.x().data(), cells.y().data(), cells.z().data(), stretches, place, reach2,
                       enough);
}

}  // namespace VRK::detail
