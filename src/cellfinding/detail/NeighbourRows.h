/// \file
/// Neighbourhoods as stretches of memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "cellfinding/detail/CellList.h"

namespace VRK::detail {

/// For one box of a list after the other, the rows of boxes around it that have points. Where boxes are
/// larger than a radius, they hold all neighbours of the box' points.
class NeighbourRows {
public:
    /// Places [begin, end) of neighbouring boxes of a row.
    struct Stretch {
        std::uint32_t begin;
        std::uint32_t end;
    };
    using Stretches = std::span<const Stretch>;

    /// Side of boxes for a radius: the margin exceeds what rounding can shift a box.
    static double sideFor(double radius) { return radius * (1.0 + 1e-6); }

    explicit NeighbourRows(const CellList& cells) : m_cells(cells) {}

    /// The box' own row comes first. Valid until the next call, which must not be for an earlier box.
    Stretches around(std::size_t box);

private:
    static constexpr std::size_t kRows = 9;

    std::int64_t keyAt(std::size_t box) const { return static_cast<std::int64_t>(m_cells.boxes()[box].key); }

    const CellList& m_cells;
    std::array<std::size_t, kRows> m_from{};
    std::array<std::size_t, kRows> m_to{};
    std::array<Stretch, kRows> m_stretches{};
};

/// How many points of the stretches are within the square sum \p reach2 of the one at a place; the stretches
/// after those that already have \p enough are not counted.
std::int64_t countNeighbours(const CellList& cells, NeighbourRows::Stretches stretches, std::size_t place,
                             double reach2, std::int64_t enough = std::numeric_limits<std::int64_t>::max());

}  // namespace VRK::detail
