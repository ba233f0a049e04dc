#include "cellfinding/detail/DistanceCounts.h"

#include <algorithm>
#include <cmath>

namespace VRK::detail {
namespace {

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void squareDistances(const double* __restrict x, const double* __restrict y, const double* __restrict z, std::size_t n,
                     const CellList::Position& from, double* __restrict squares) {
    const double px = from[0], py = from[1], pz = from[2];
    for (std::size_t i = 0; i < n; ++i) {
        const double dx = x[i] - px, dy = y[i] - py, dz = z[i] - pz;
        squares[i] = dx * dx + dy * dy + dz * dz;
    }
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void findIntervals(const double* __restrict squares, std::size_t n, double reach, std::int32_t* __restrict bins) {
    constexpr auto kLast = static_cast<std::int32_t>(DistanceCounts::kBins) - 1;
    for (std::size_t i = 0; i < n; ++i) {
        const auto bin =
            static_cast<std::int32_t>(std::sqrt(squares[i]) / reach * double(DistanceCounts::kBins));
        bins[i] = bin < kLast ? bin : kLast;
    }
}

/// Moves the squares within the reach to the front; their number.
std::size_t keepWithin(double* squares, std::size_t n, double reach2) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double square = squares[i];
        squares[kept] = square;
        kept += square <= reach2 ? 1 : 0;
    }
    return kept;
}

}  // namespace

DistanceCounts::DistanceCounts(double reach) : m_reach(reach), m_reach2(largestSquareWithin(reach)) {}

void DistanceCounts::addFrom(const CellList& cells, const CellList::Position& point) {
    cells.forEachStretch(point, m_reach, [&](std::size_t begin, std::size_t end) {
        for (std::size_t from = begin; from < end; from += kBlock) {
            const std::size_t n = std::min(kBlock, end - from);
            squareDistances(cells.x().data() + from, cells.y().data() + from, cells.z().data() + from, n,
                            point, m_squares.data());
            const std::size_t kept = keepWithin(m_squares.data(), n, m_reach2);
            findIntervals(m_squares.data(), kept, m_reach, m_bins.data());
            for (std::size_t i = 0; i < kept; ++i)
                ++m_counts[static_cast<std::size_t>(m_bins[i])];
        }
    });
    --m_counts[0];  // the point itself
}

}  // namespace VRK::detail
