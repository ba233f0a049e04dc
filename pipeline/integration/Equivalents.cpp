#include "pipeline/integration/Equivalents.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace vrk {

std::vector<std::vector<std::uint32_t>> equivalents(std::span<const Observation> observations,
                                                    const LaueRotations& rotations) {
    std::vector<std::pair<Indices, std::uint32_t>> keys;
    for (std::uint32_t i = 0; i < observations.size(); ++i)
        if (!observations[i].outlier) keys.emplace_back(representative(observations[i].hkl, rotations), i);
    std::sort(keys.begin(), keys.end());
    std::vector<std::vector<std::uint32_t>> groups;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (i == 0 || keys[i].first != keys[i - 1].first) groups.emplace_back();
        groups.back().push_back(keys[i].second);
    }
    return groups;
}

WeightedMean weightedMean(std::span<const Observation> observations, std::span<const std::uint32_t> group) {
    double top = 0, bottom = 0;
    for (const std::uint32_t i : group) {
        const double weight = 1 / (observations[i].sigma * observations[i].sigma);
        top += weight * observations[i].intensity;
        bottom += weight;
    }
    if (!(bottom > 0)) return {};
    return {top / bottom, std::sqrt(1 / bottom)};
}

double trimmedMeanSquare(std::vector<double> squares) {
    if (squares.empty()) return 0;
    // The mean of the smaller 95 % of the squares of normal deviates.
    constexpr double kKept = 0.95;
    constexpr double kMeanOfKept = 0.7589;
    const auto kept =
        std::max<std::size_t>(1, static_cast<std::size_t>(kKept * static_cast<double>(squares.size())));
    const auto end = squares.begin() + static_cast<std::ptrdiff_t>(kept);
    std::nth_element(squares.begin(), end - 1, squares.end());
    double sum = 0;
    for (auto at = squares.begin(); at != end; ++at)
        sum += *at;
    return sum / static_cast<double>(kept) / kMeanOfKept;
}

}  // namespace vrk
