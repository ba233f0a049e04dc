#include "pipeline/integration/ResolutionLimit.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>
#include <vector>

#include "pipeline/integration/BySpacing.h"

namespace vrk {

namespace {

constexpr double kMost = 5;
constexpr std::size_t kEnoughPairs = 100;

/// By falling spacing: an estimate of a reflection's squared significance, free of noise on average.
std::vector<std::pair<double, double>> signals(std::span<const IntegratedReflection> reflections) {
    std::map<std::array<int, 3>, double> significance;
    for (const IntegratedReflection& r : reflections)
        if (r.good()) significance[{r.h, r.k, r.l}] = std::clamp(r.intensity / r.sigma, -kMost, kMost);
    std::vector<std::pair<double, double>> pairs;
    for (const IntegratedReflection& r : reflections) {
        const auto one = significance.find({r.h, r.k, r.l});
        const auto mate = significance.find({-r.h, -r.k, -r.l});
        if (one != significance.end() && mate != significance.end() && one->first > mate->first)
            pairs.emplace_back(r.spacing, one->second * mate->second);
    }
    if (pairs.size() < kEnoughPairs) {
        pairs.clear();
        for (const IntegratedReflection& r : reflections)
            if (const auto one = significance.find({r.h, r.k, r.l}); one != significance.end())
                pairs.emplace_back(r.spacing, one->second * one->second - 1);
    }
    sortBySpacing(pairs, [](const auto& pair) { return pair.first; });
    return pairs;
}

}  // namespace

double resolutionOf(std::span<const IntegratedReflection> reflections) {
    constexpr double kLeast = 0.25;
    double sum = 0, highest = 0, limit = 0;
    for (const auto& [spacing, signal] : signals(reflections)) {
        sum += signal - kLeast;
        if (sum <= highest) continue;
        highest = sum;
        limit = spacing;
    }
    return limit;
}

}  // namespace vrk
