#include "cellfinding/detail/PotentialGrid.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace VRK::detail {
namespace {

using Position = PotentialGrid::Position;

constexpr double kCellsPerRadius = 4.0;
constexpr double kMostCells = 1 << 24;
/// Beyond it, in radii, a point adds less than 2e-4.
constexpr double kKernelReach = 1.5;
constexpr auto kTaps = static_cast<std::size_t>(kKernelReach * kCellsPerRadius);
/// Of the potential that is taken away, in radii.
constexpr double kSubtracted = 1.5;
/// A centre of less than this share of the first must stand apart from the others.
constexpr double kAcceptedAnywhere = 0.5;
constexpr double kDeviations = 5.0;
constexpr double kLeastVectors = 4.0;

struct Bounds {
    Position min;
    Position max;

    explicit Bounds(std::span<const Position> points) {
        min.fill(std::numeric_limits<double>::infinity());
        max.fill(-std::numeric_limits<double>::infinity());
        for (const Position& point : points)
            for (std::size_t k = 0; k < 3; ++k) {
                min[k] = std::min(min[k], point[k]);
                max[k] = std::max(max[k], point[k]);
            }
    }
};

/// The kernel along one axis between two cells.
float kernelAt(std::size_t i, std::size_t j) {
    static const auto kernel = [] {
        std::array<float, kTaps + 1> values;
        for (std::size_t d = 0; d <= kTaps; ++d) {
            const double radii = static_cast<double>(d) / kCellsPerRadius;
            values[d] = static_cast<float>(std::exp(-4.0 * radii * radii));
        }
        return values;
    }();
    return kernel[i > j ? i - j : j - i];
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addWeighted(const float* __restrict from, float weight, std::size_t n, float* __restrict to) {
    for (std::size_t i = 0; i < n; ++i)
        to[i] += weight * from[i];
}

}  // namespace

std::size_t PotentialGrid::Cells::size() const {
    return static_cast<std::size_t>(count[0]) * static_cast<std::size_t>(count[1]) *
           static_cast<std::size_t>(count[2]);
}

std::size_t PotentialGrid::Cells::index(const Cell& cell) const {
    return (static_cast<std::size_t>(cell[2]) * static_cast<std::size_t>(count[1]) +
            static_cast<std::size_t>(cell[1])) *
               static_cast<std::size_t>(count[0]) +
           static_cast<std::size_t>(cell[0]);
}

PotentialGrid::Cell PotentialGrid::Cells::at(std::size_t index) const {
    const auto nx = static_cast<std::size_t>(count[0]);
    const auto ny = static_cast<std::size_t>(count[1]);
    return {static_cast<int>(index % nx), static_cast<int>(index / nx % ny),
            static_cast<int>(index / nx / ny)};
}

PotentialGrid::Cell PotentialGrid::Cells::at(const Position& place) const {
    Cell cell;
    for (std::size_t k = 0; k < 3; ++k)
        cell[k] = std::clamp(static_cast<int>((place[k] - min[k]) / side[k]), 0, count[k] - 1);
    return cell;
}

Position PotentialGrid::Cells::middle(const Cell& cell) const {
    Position place;
    for (std::size_t k = 0; k < 3; ++k)
        place[k] = min[k] + (cell[k] + 0.5) * side[k];
    return place;
}

double PotentialGrid::smallestRadius(std::span<const Position> points, bool flat) {
    const Bounds bounds(points);
    const auto cells = [&](double side) {
        double product = 1.0;
        for (std::size_t k = 0; k < (flat ? 2U : 3U); ++k)
            product *= std::floor((bounds.max[k] - bounds.min[k]) / side) + 1.0;
        return product;
    };
    double low = 0.0;
    double high = 1.0;
    while (!(cells(high / kCellsPerRadius) <= kMostCells) && std::isfinite(high))
        high *= 2.0;
    for (int i = 0; i < 40; ++i) {
        const double middle = 0.5 * (low + high);
        (cells(middle / kCellsPerRadius) <= kMostCells ? high : low) = middle;
    }
    return high;
}

PotentialGrid::PotentialGrid(std::span<const Position> points, double radius, bool flat)
    : m_radius(radius), m_flat(flat) {
    const Bounds bounds(points);
    const std::size_t axes = flat ? 2 : 3;
    m_cells.min = m_surroundings.min = m_neighbourhoods.min = bounds.min;
    for (std::size_t k = 0; k < axes; ++k) {
        const double extent = bounds.max[k] - bounds.min[k];
        m_cells.side[k] = radius / kCellsPerRadius;
        m_cells.count[k] = static_cast<int>(extent / m_cells.side[k]) + 1;
        m_neighbourhoods.side[k] = radius;
        m_neighbourhoods.count[k] = static_cast<int>(extent / radius) + 1;
        m_surroundings.count[k] = static_cast<int>(std::ceil(extent / (2.0 * radius)));
        m_surroundings.count[k] = std::max(1, m_surroundings.count[k]);
        m_surroundings.side[k] = std::max(extent, radius) / m_surroundings.count[k];
    }
    m_potentials.assign(m_cells.size(), 0.0F);
    m_rowUsed.assign(m_cells.size() / static_cast<std::size_t>(m_cells.count[0]), 0);
    for (const Position& point : points) {
        const std::size_t cell = m_cells.index(m_cells.at(point));
        m_potentials[cell] += 1.0F;
        m_rowUsed[cell / static_cast<std::size_t>(m_cells.count[0])] = 1;
    }
    blurRows();
    for (std::size_t axis = 1; axis < axes; ++axis)
        blurAcross(axis);
    setThresholds(points);
    collectCandidates();
}

/// The kernel is the product of one for each axis. Rows without potential, which are most where points are
/// few, take no time.
void PotentialGrid::blurRows() {
    const auto length = static_cast<std::size_t>(m_cells.count[0]);
    std::vector<float> row(length);
    for (std::size_t r = 0; r < m_rowUsed.size(); ++r) {
        if (!m_rowUsed[r]) continue;
        float* const cells = &m_potentials[r * length];
        std::fill(row.begin(), row.end(), 0.0F);
        for (std::size_t i = 0; i < length; ++i) {
            if (cells[i] == 0.0F) continue;
            const std::size_t last = std::min(length - 1, i + kTaps);
            for (std::size_t j = i > kTaps ? i - kTaps : 0; j <= last; ++j)
                row[j] += cells[i] * kernelAt(i, j);
        }
        std::copy(row.begin(), row.end(), cells);
    }
}

/// Along y (axis 1) or z (2), whole rows at a time.
void PotentialGrid::blurAcross(std::size_t axis) {
    const auto length = static_cast<std::size_t>(m_cells.count[0]);
    const auto ny = static_cast<std::size_t>(m_cells.count[1]);
    const auto nz = static_cast<std::size_t>(m_cells.count[2]);
    const std::size_t along = axis == 1 ? ny : nz;
    const std::size_t step = axis == 1 ? 1 : ny;
    std::vector<float> rows(along * length);
    std::vector<char> used(along);
    for (std::size_t other = 0; other < (axis == 1 ? nz : ny); ++other) {
        const std::size_t first = axis == 1 ? other * ny : other;
        std::fill(rows.begin(), rows.end(), 0.0F);
        std::fill(used.begin(), used.end(), char(0));
        for (std::size_t i = 0; i < along; ++i) {
            if (!m_rowUsed[first + i * step]) continue;
            const float* const from = &m_potentials[(first + i * step) * length];
            const std::size_t last = std::min(along - 1, i + kTaps);
            for (std::size_t j = i > kTaps ? i - kTaps : 0; j <= last; ++j) {
                const float weight = kernelAt(i, j);
                addWeighted(from, weight, length, &rows[j * length]);
                used[j] = 1;
            }
        }
        for (std::size_t i = 0; i < along; ++i) {
            m_rowUsed[first + i * step] = used[i];
            if (used[i]) std::copy_n(&rows[i * length], length, &m_potentials[(first + i * step) * length]);
        }
    }
}

/// What chance would reach, from the density of the points within five cells of two radii.
void PotentialGrid::setThresholds(std::span<const Position> points) {
    std::vector<float> counts(m_surroundings.size(), 0.0F);
    for (const Position& point : points)
        counts[m_surroundings.index(m_surroundings.at(point))] += 1.0F;
    const int axes = m_flat ? 2 : 3;
    // Integrals of the kernel and of its square over all space.
    const double mean = std::pow(std::numbers::pi / 4.0, 0.5 * axes) * std::pow(m_radius, axes);
    const double variance = std::pow(std::numbers::pi / 8.0, 0.5 * axes) * std::pow(m_radius, axes);
    double volume = 1.0;
    for (int k = 0; k < axes; ++k)
        volume *= m_surroundings.side[static_cast<std::size_t>(k)];
    m_thresholds.resize(counts.size());
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const Cell cell = m_surroundings.at(i);
        const auto from = [&](std::size_t k) { return std::max(0, cell[k] - 2); };
        const auto to = [&](std::size_t k) { return std::min(m_surroundings.count[k] - 1, cell[k] + 2); };
        double count = 0.0;
        double cells = 0.0;
        for (int z = from(2); z <= to(2); ++z)
            for (int y = from(1); y <= to(1); ++y)
                for (int x = from(0); x <= to(0); ++x) {
                    const double inside = counts[m_surroundings.index({x, y, z})];
                    count += inside;
                    cells += inside > 0.0;
                }
        const double density = count / (std::max(1.0, cells) * volume);
        m_thresholds[i] =
            static_cast<float>(kLeastVectors + density * mean + kDeviations * std::sqrt(density * variance));
    }
}

double PotentialGrid::thresholdAt(const Position& place) const {
    return m_thresholds[m_surroundings.index(m_surroundings.at(place))];
}

void PotentialGrid::collectCandidates() {
    for (std::size_t i = 0; i < m_potentials.size(); ++i)
        if (m_potentials[i] > kLeastVectors && m_potentials[i] > thresholdAt(m_cells.middle(m_cells.at(i))))
            m_heap.push_back({m_potentials[i], i});
    std::make_heap(m_heap.begin(), m_heap.end());
}

/// Chiu's rule for weak centres: the distance to the nearest centre in radii and the share of the first
/// centre's potential must add up to 1.
bool PotentialGrid::standsApart(const Position& place, double potential) const {
    const double share = potential / m_highest;
    if (share > kAcceptedAnywhere || m_peaks.empty()) return true;
    const double least = (1.0 - share) * m_radius;
    const Cell centre = m_neighbourhoods.at(place);
    for (int z = centre[2] - 1; z <= centre[2] + 1; ++z)
        for (int y = centre[1] - 1; y <= centre[1] + 1; ++y)
            for (int x = centre[0] - 1; x <= centre[0] + 1; ++x) {
                const Cell cell = {x, y, z};
                bool inside = true;
                for (std::size_t k = 0; k < 3; ++k)
                    inside = inside && cell[k] >= 0 && cell[k] < m_neighbourhoods.count[k];
                const auto found = inside ? m_peaks.find(m_neighbourhoods.index(cell)) : m_peaks.end();
                if (found == m_peaks.end()) continue;
                for (const Position& peak : found->second)
                    if (std::hypot(peak[0] - place[0], peak[1] - place[1], peak[2] - place[2]) < least)
                        return false;
            }
    return true;
}

void PotentialGrid::subtract(const Cell& centre, double potential) {
    constexpr int reach = static_cast<int>(kKernelReach * kSubtracted * kCellsPerRadius);
    static const auto weights = [] {
        std::array<float, 2 * reach + 1> values;
        for (int d = -reach; d <= reach; ++d) {
            const double radii = d / (kSubtracted * kCellsPerRadius);
            values[static_cast<std::size_t>(d + reach)] = static_cast<float>(std::exp(-4.0 * radii * radii));
        }
        return values;
    }();
    Cell from;
    Cell to;
    for (std::size_t k = 0; k < 3; ++k) {
        from[k] = std::max(0, centre[k] - reach);
        to[k] = std::min(m_cells.count[k] - 1, centre[k] + reach);
    }
    const auto weight = [&](int d) { return weights[static_cast<std::size_t>(d + reach)]; };
    const auto length = static_cast<std::size_t>(to[0] - from[0] + 1);
    const float* const along = &weights[static_cast<std::size_t>(from[0] - centre[0] + reach)];
    for (int z = from[2]; z <= to[2]; ++z)
        for (int y = from[1]; y <= to[1]; ++y) {
            const float row = static_cast<float>(potential) * weight(z - centre[2]) * weight(y - centre[1]);
            float* const potentials = &m_potentials[m_cells.index({from[0], y, z})];
            for (std::size_t i = 0; i < length; ++i)
                potentials[i] -= row * along[i];
        }
}

bool PotentialGrid::nextPeak(Peak& peak) {
    while (!m_heap.empty()) {
        std::pop_heap(m_heap.begin(), m_heap.end());
        const Entry top = m_heap.back();
        m_heap.pop_back();
        const Cell cell = m_cells.at(top.cell);
        const Position place = m_cells.middle(cell);
        const float potential = m_potentials[top.cell];
        if (!(potential > thresholdAt(place))) continue;
        if (potential < top.potential) {  // an earlier centre has taken some of it away
            m_heap.push_back({potential, top.cell});
            std::push_heap(m_heap.begin(), m_heap.end());
            continue;
        }
        if (!standsApart(place, potential)) continue;
        peak = {place, potential};
        if (m_flat) peak.place[2] = 0.0;
        m_highest = std::max(m_highest, peak.potential);
        m_peaks[m_neighbourhoods.index(m_neighbourhoods.at(place))].push_back(place);
        subtract(cell, potential);
        return true;
    }
    return false;
}

}  // namespace VRK::detail
