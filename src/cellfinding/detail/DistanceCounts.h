/// \file
/// Distances between points, counted in intervals.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "cellfinding/detail/CellList.h"

namespace VRK::detail {

/// How many points have which distance below a reach from the points that were added.
class DistanceCounts {
public:
    static constexpr std::size_t kBins = 800;

    explicit DistanceCounts(double reach);

    /// The distances of all others in the list from one of its points.
    void addFrom(const CellList& cells, const CellList::Position& point);

    const std::array<std::uint64_t, kBins>& counts() const { return m_counts; }

private:
    static constexpr std::size_t kBlock = 512;

    double m_reach;
    double m_reach2;
    std::array<double, kBlock> m_squares;
    std::array<std::int32_t, kBlock> m_bins;
    std::array<std::uint64_t, kBins> m_counts{};
};

}  // namespace VRK::detail
