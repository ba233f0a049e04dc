#include "pipeline/merging/CrystalAgreement.h"

#include <algorithm>
#include <cmath>

#include "pipeline/integration/BySpacing.h"
#include "pipeline/integration/Equivalents.h"

namespace vrk {
namespace {

constexpr std::size_t kShellSize = 200;
constexpr std::size_t kMostShells = 10;

/// The value of a crystal for a unique reflection.
struct CrystalValue {
    std::uint32_t crystal;
    double intensity, weight;
};

/// A unique reflection that at least two crystals have.
struct Group {
    double spacing;
    std::vector<CrystalValue> values;
};

std::vector<Group> groupsOf(std::span<const Observation> observations, const LaueRotations& rotations) {
    std::vector<Group> groups;
    for (auto equivalent : equivalents(observations, rotations)) {
        std::stable_sort(equivalent.begin(), equivalent.end(), [&](std::uint32_t a, std::uint32_t b) {
            return observations[a].source < observations[b].source;
        });
        std::vector<CrystalValue> values;
        for (const std::uint32_t i : equivalent) {
            const Observation& one = observations[i];
            const double weight = 1 / (one.sigma * one.sigma);
            if (values.empty() || values.back().crystal != one.source) values.push_back({one.source, 0, 0});
            values.back().intensity += weight * one.intensity;
            values.back().weight += weight;
        }
        if (values.size() < 2) continue;
        for (CrystalValue& value : values)
            value.intensity /= value.weight;
        groups.push_back({observations[equivalent.front()].spacing, std::move(values)});
    }
    sortBySpacing(groups, [](const Group& one) { return one.spacing; });
    return groups;
}

/// Sums over the values of one reflection, intensities counted from their mean.
struct ValueSums {
    double mean = 0;
    double weight = 0, top = 0, square = 0, count = 0;

    explicit ValueSums(const std::vector<CrystalValue>& values) {
        for (const CrystalValue& value : values) {
            mean += value.weight * value.intensity;
            weight += value.weight;
        }
        mean /= weight;
        for (const CrystalValue& value : values)
            square += value.weight * std::pow(value.intensity - mean, 2);
        count = static_cast<double>(values.size());
    }
    ValueSums without(const CrystalValue& value) const {
        ValueSums rest = *this;
        const double deviation = value.intensity - mean;
        rest.weight -= value.weight;
        rest.top -= value.weight * deviation;
        rest.square -= value.weight * deviation * deviation;
        rest.count -= 1;
        return rest;
    }
};

/// Sums over reflections from which the correlation of halves follows.
struct Sums {
    double count = 0, mean = 0, square = 0, noise = 0;

    void add(const ValueSums& values, double sign) {
        if (values.count < 2) return;
        const double shift = values.top / values.weight;
        const double average = values.mean + shift;
        const double squares = std::max(values.square - shift * values.top, 0.0);
        count += sign;
        mean += sign * average;
        square += sign * average * average;
        // The variance of the mean of half of them.
        noise += sign * 2 * squares / (values.weight * (values.count - 1));
    }
    double ccHalf() const {
        if (count < 3) return 0;
        const double variance = (square - mean * mean / count) / (count - 1);
        const double half = 0.5 * noise / count;
        return variance > 0 ? (variance - half) / (variance + half) : 0;
    }
};

}  // namespace

CrystalAgreement crystalAgreement(std::span<const Observation> observations, std::size_t crystals,
                                  const LaueRotations& rotations) {
    CrystalAgreement result;
    result.delta.assign(crystals, 0);
    const std::vector<Group> groups = groupsOf(observations, rotations);
    const std::size_t shells = std::clamp<std::size_t>(groups.size() / kShellSize, 1, kMostShells);
    double counted = 0;
    std::vector<double> without(crystals, 0);
    for (std::size_t shell = 0; shell < shells; ++shell) {
        const std::size_t first = groups.size() * shell / shells;
        const std::size_t last = groups.size() * (shell + 1) / shells;
        Sums all;
        for (std::size_t i = first; i < last; ++i)
            all.add(ValueSums(groups[i].values), 1);
        std::vector<Sums> rest(crystals, all);
        for (std::size_t i = first; i < last; ++i) {
            const ValueSums values(groups[i].values);
            for (const CrystalValue& value : groups[i].values) {
                rest[value.crystal].add(values, -1);
                rest[value.crystal].add(values.without(value), 1);
            }
        }
        const auto weight = static_cast<double>(last - first);
        counted += weight;
        result.ccHalf += weight * all.ccHalf();
        for (std::size_t c = 0; c < crystals; ++c)
            without[c] += weight * rest[c].ccHalf();
    }
    if (counted == 0) return result;
    result.ccHalf /= counted;
    for (std::size_t c = 0; c < crystals; ++c)
        result.delta[c] = result.ccHalf - without[c] / counted;
    return result;
}

}  // namespace vrk
