#include "pipeline/merging/CrystalAgreement.h"

#include <algorithm>
#include <cmath>

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
    for (const auto& equivalent : equivalents(observations, rotations)) {
        std::vector<CrystalValue> values;
        for (const std::uint32_t i : equivalent) {
            const Observation& one = observations[i];
            const double weight = 1 / (one.sigma * one.sigma);
            auto own = std::find_if(values.begin(), values.end(),
                                    [&](const CrystalValue& v) { return v.crystal == one.source; });
            if (own == values.end()) own = values.insert(values.end(), {one.source, 0, 0});
            own->intensity += weight * one.intensity;
            own->weight += weight;
        }
        if (values.size() < 2) continue;
        for (CrystalValue& value : values)
            value.intensity /= value.weight;
        groups.push_back({observations[equivalent.front()].spacing, std::move(values)});
    }
    std::stable_sort(groups.begin(), groups.end(),
                     [](const Group& a, const Group& b) { return a.spacing > b.spacing; });
    return groups;
}

/// Sums over reflections from which the correlation of halves follows.
struct Sums {
    double count = 0, mean = 0, square = 0, noise = 0;

    void add(const std::vector<CrystalValue>& values, double sign, std::uint32_t without = ~0U) {
        double weights = 0, top = 0, n = 0;
        for (const CrystalValue& value : values)
            if (value.crystal != without) {
                weights += value.weight;
                top += value.weight * value.intensity;
                ++n;
            }
        if (n < 2) return;
        const double average = top / weights;
        double squares = 0;
        for (const CrystalValue& value : values)
            if (value.crystal != without) squares += value.weight * std::pow(value.intensity - average, 2);
        count += sign;
        mean += sign * average;
        square += sign * average * average;
        // The variance of the mean of half of them.
        noise += sign * 2 * squares / (weights * (n - 1));
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
            all.add(groups[i].values, 1);
        std::vector<Sums> rest(crystals, all);
        for (std::size_t i = first; i < last; ++i)
            for (const CrystalValue& value : groups[i].values) {
                rest[value.crystal].add(groups[i].values, -1);
                rest[value.crystal].add(groups[i].values, 1, value.crystal);
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
