/// \file
/// The potentials of subtractive clustering over a regular grid.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace VRK::detail {

/// What FSC finds its centres with; the rules stand there.
class PotentialGrid {
public:
    using Position = std::array<double, 3>;
    struct Peak {
        Position place;
        double potential;
    };

    /// Cells of a quarter of the radius over the bounds of the points, which take the places of their cells.
    /// \param flat  the points have two coordinates, the third is 0
    PotentialGrid(std::span<const Position> points, double radius, bool flat);

    /// The smallest radius for which the grid over these points keeps its bound of memory.
    static double smallestRadius(std::span<const Position> points, bool flat);

    /// The next centre; its potential is taken out of the grid. False when there is none.
    bool nextPeak(Peak& peak);

private:
    using Cell = std::array<int, 3>;
    struct Entry {
        float potential;
        std::size_t cell;
        bool operator<(const Entry& other) const {
            return potential < other.potential || (potential == other.potential && cell > other.cell);
        }
    };
    /// A grid of cells; x runs fastest.
    struct Cells {
        Position min{};
        Position side{1.0, 1.0, 1.0};
        Cell count{1, 1, 1};
        std::size_t size() const;
        std::size_t index(const Cell& cell) const;
        Cell at(std::size_t index) const;
        Cell at(const Position& place) const;
        Position middle(const Cell& cell) const;
    };

    void blurRows();
    void blurAcross(std::size_t axis);
    void setThresholds(std::span<const Position> points);
    double thresholdAt(const Position& place) const;
    void collectCandidates();
    bool standsApart(const Position& place, double potential) const;
    void subtract(const Cell& centre, double potential);

    double m_radius;
    bool m_flat;
    Cells m_cells;  // cubes

    std::vector<float> m_potentials;
    std::vector<char> m_rowUsed;  // whether a row of cells along x has a potential
    Cells m_surroundings;         // of about two radii, just over the bounds
    std::vector<float> m_thresholds;
    std::vector<Entry> m_heap;
    double m_highest = 0.0;
    Cells m_neighbourhoods;  // of one radius
    std::unordered_map<std::size_t, std::vector<Position>> m_peaks;
};

}  // namespace VRK::detail
