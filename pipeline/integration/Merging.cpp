#include "pipeline/integration/Merging.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>

#include "pipeline/integration/Equivalents.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "pipeline/simulation/SimulatedCrystal.h"

namespace vrk {
namespace {

constexpr int kMostShells = 10;
constexpr int kReflectionsInShell = 60;
constexpr double kLimitOfCc = 0.3;
/// Equivalents of the last reflection are not to be lost by rounding.
constexpr double kEdge = 1 + 1e-6;
constexpr double kLimitOfISigma = 1;

/// Sums over the equivalents of one shell.
class Shell {
public:
    void add(std::span<const Observation> observations, std::span<const std::uint32_t> group) {
        const WeightedMean best = weightedMean(observations, group);
        m_statistics.observations += static_cast<int>(group.size());
        ++m_statistics.unique;
        m_iOverSigma += best.sigma > 0 ? best.intensity / best.sigma : 0;
        if (group.size() < 2) return;
        const auto count = static_cast<double>(group.size());
        double mean = 0, squares = 0, deviations = 0;
        for (const std::uint32_t i : group)
            mean += observations[i].intensity / count;
        for (const std::uint32_t i : group) {
            const double deviation = observations[i].intensity - mean;
            deviations += std::abs(deviation);
            squares += deviation * deviation;
            m_intensity += observations[i].intensity;
        }
        m_deviations += deviations;
        m_corrected += std::sqrt(count / (count - 1)) * deviations;
        // Variance of the mean of half of the observations.
        m_noise += squares / (count - 1) / (count / 2);
        m_means += mean;
        m_meanSquares += mean * mean;
        m_groups += 1;
    }
    ShellStatistics statistics() const {
        ShellStatistics result = m_statistics;
        if (result.unique > 0) result.iOverSigma = m_iOverSigma / result.unique;
        if (m_intensity > 0) {
            result.rInt = m_deviations / m_intensity;
            result.rMeas = m_corrected / m_intensity;
        }
        if (m_groups > 2) {
            const double variance = (m_meanSquares - m_means * m_means / m_groups) / (m_groups - 1);
            const double noise = m_noise / m_groups;
            if (variance > 0) result.ccHalf = (variance - noise / 2) / (variance + noise / 2);
        }
        return result;
    }
    ShellStatistics& limits() { return m_statistics; }

private:
    ShellStatistics m_statistics;
    double m_iOverSigma = 0, m_intensity = 0, m_deviations = 0, m_corrected = 0;
    double m_noise = 0, m_means = 0, m_meanSquares = 0, m_groups = 0;
};

/// Where a quantity that falls with the resolution crosses a level, interpolated between the middles of the
/// shells in 1/d; the end of the last shell when it does not.
template <typename Quantity>
double crossing(const std::vector<ShellStatistics>& shells, double level, Quantity quantity) {
    const auto middle = [](const ShellStatistics& shell) { return 0.5 * (1 / shell.dMin + 1 / shell.dMax); };
    for (std::size_t i = 0; i < shells.size(); ++i) {
        const double value = quantity(shells[i]);
        if (value >= level) continue;
        if (i == 0) return shells[0].dMax;
        const double before = quantity(shells[i - 1]);
        const double part = (before - level) / (before - value);
        return 1 / (middle(shells[i - 1]) + part * (middle(shells[i]) - middle(shells[i - 1])));
    }
    return shells.empty() ? 0 : shells.back().dMin;
}

}  // namespace

std::vector<MergedReflection> merge(std::span<const Observation> observations,
                                    const LaueRotations& rotations) {
    std::vector<MergedReflection> merged;
    for (const auto& group : equivalents(observations, rotations)) {
        const WeightedMean mean = weightedMean(observations, group);
        const Observation& first = observations[group.front()];
        merged.push_back({representative(first.hkl, rotations),
                          mean.intensity,
                          mean.sigma,
                          first.spacing,
                          static_cast<int>(group.size()),
                          {}});
    }
    return merged;
}

MergingStatistics mergingStatistics(std::span<const Observation> observations, const LaueRotations& rotations,
                                    const Eigen::Matrix3d& reciprocal, char centring, double dMin) {
    MergingStatistics result;
    const auto groups = equivalents(observations, rotations);
    double dMax = dMin;
    for (const Observation& one : observations)
        dMax = std::max(dMax, one.spacing);
    const int count = std::clamp(static_cast<int>(groups.size()) / kReflectionsInShell, 1, kMostShells);
    const double longest3 = std::pow(1 / dMin, 3);
    const auto lengthOf = [&](const Indices& hkl) {
        return (reciprocal * Eigen::Vector3d(hkl[0], hkl[1], hkl[2])).norm();
    };
    const auto shellOf = [&](double length) {
        const double part = std::pow(length, 3) / longest3;
        return static_cast<std::size_t>(std::clamp(static_cast<int>(part * count), 0, count - 1));
    };
    std::vector<Shell> shells(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        ShellStatistics& limits = shells[static_cast<std::size_t>(i)].limits();
        limits.dMax = i == 0 ? dMax : std::cbrt(count / (longest3 * i));
        limits.dMin = std::cbrt(count / (longest3 * (i + 1)));
    }
    Shell all;
    all.limits().dMax = dMax;
    all.limits().dMin = dMin;
    for (const auto& group : groups) {
        // By the representative: each shell counts its own of those that are possible.
        const Indices hkl = representative(observations[group.front()].hkl, rotations);
        shells[shellOf(lengthOf(hkl))].add(observations, group);
        all.add(observations, group);
    }

    const std::array<double, 6> cell = directCell(reciprocal);
    std::array<int, 3> most{};
    for (std::size_t i = 0; i < 3; ++i)
        most[i] = static_cast<int>(cell[i] / dMin);
    for (int h = -most[0]; h <= most[0]; ++h)
        for (int k = -most[1]; k <= most[1]; ++k)
            for (int l = -most[2]; l <= most[2]; ++l) {
                const Indices hkl = {h, k, l};
                const double length = lengthOf(hkl);
                if (!(length > 0) || length > kEdge / dMin || isExtinct(centring, h, k, l)) continue;
                if (representative(hkl, rotations) != hkl) continue;
                ++shells[shellOf(length)].limits().possible;
                ++all.limits().possible;
            }
    result.overall = all.statistics();
    for (const Shell& shell : shells)
        result.shells.push_back(shell.statistics());
    result.limitByCcHalf =
        crossing(result.shells, kLimitOfCc, [](const ShellStatistics& s) { return s.ccHalf; });
    result.limitByISigma =
        crossing(result.shells, kLimitOfISigma, [](const ShellStatistics& s) { return s.iOverSigma; });
    return result;
}

}  // namespace vrk
