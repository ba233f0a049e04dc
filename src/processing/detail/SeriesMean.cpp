#include "processing/detail/SeriesMean.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <span>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/SharedLoop.h"
#include "foundation/detail/Median.h"

namespace VRK::detail {
namespace {

constexpr std::size_t kMostPatterns = 32;
constexpr std::size_t kGroup = 4;

/// Evenly spread over those that are not blank; a whole number of groups where there are enough.
std::vector<const short*> patternsOf(const VoxMRCData& series) {
    const std::size_t area = series.GetChunkSize();
    std::vector<std::int64_t> sums(series.GetDepth());
    shareItems(sums.size(), [&](std::size_t z, std::size_t) {
        const short* pixels = series.GetChunkPointer(static_cast<unsigned>(z));
        sums[z] = std::accumulate(pixels, pixels + area, std::int64_t{0});
    });
    std::vector<std::int64_t> sorted = sums;
    const std::int64_t typical = medianOf(sorted);
    std::vector<const short*> shown;
    for (unsigned z = 0; z < series.GetDepth(); ++z)
        if (sums[z] > typical / 10) shown.push_back(series.GetChunkPointer(z));
    std::size_t count = std::min(shown.size(), kMostPatterns);
    if (count > kGroup) count -= count % kGroup;
    std::vector<const short*> chosen;
    for (std::size_t i = 0; i < count; ++i)
        chosen.push_back(shown[(2 * i + 1) * shown.size() / (2 * count)]);
    return chosen;
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void addPattern(const short* __restrict pixels, std::size_t n, int* __restrict sums, int* __restrict highest) {
    for (std::size_t i = 0; i < n; ++i) {
        const int value = std::max<int>(pixels[i], 0);
        sums[i] += value;
        highest[i] = std::max(highest[i], value);
    }
}

/// Adds the values of some patterns but for the highest of each pixel.
void addWithoutHighest(std::span<const short* const> patterns, std::vector<int>& sums) {
    constexpr std::size_t kBlock = 4096;
    const bool all = patterns.size() < kGroup;
    shareItems((sums.size() + kBlock - 1) / kBlock, [&](std::size_t block, std::size_t) {
        const std::size_t begin = block * kBlock;
        const std::size_t count = std::min(kBlock, sums.size() - begin);
        std::array<int, kBlock> highest{};
        for (const short* pattern : patterns)
            addPattern(pattern + begin, count, sums.data() + begin, highest.data());
        for (std::size_t i = 0; !all && i < count; ++i)
            sums[begin + i] -= highest[i];
    });
}

double countsOf(const std::vector<float>& values, int width) {
    std::vector<float> deviations;
    for (std::size_t i = 0; i + 1 < values.size(); ++i) {
        if ((i + 1) % static_cast<std::size_t>(width) == 0) continue;
        const float sum = values[i] + values[i + 1];
        if (sum > 0) deviations.push_back(std::abs(values[i] - values[i + 1]) / std::sqrt(sum));
    }
    if (deviations.empty()) return 0;
    const double sigma = std::max(1.4826 * medianOf(deviations), 1e-3);
    return 1 / (sigma * sigma);
}

}  // namespace

SeriesMean::SeriesMean(const VoxMRCData& series)
    : width(static_cast<int>(series.GetWidth())),
      height(static_cast<int>(series.GetHeight())),
      values(series.GetChunkSize()) {
    const std::vector<const short*> patterns = patternsOf(series);
    if (patterns.empty()) return;
    // Neighbouring patterns share reflections: the patterns of a group lie far apart.
    const std::size_t groups = std::max<std::size_t>(patterns.size() / kGroup, 1);
    std::vector<int> sums(values.size());
    std::size_t added = 0;
    for (std::size_t group = 0; group < groups; ++group) {
        std::vector<const short*> members;
        for (std::size_t i = group; i < patterns.size(); i += groups)
            members.push_back(patterns[i]);
        addWithoutHighest(members, sums);
        added += members.size() < kGroup ? members.size() : members.size() - 1;
    }
    std::transform(sums.begin(), sums.end(), values.begin(),
                   [added](int sum) { return static_cast<float>(sum) / static_cast<float>(added); });
    counts = countsOf(values, width);
}

}  // namespace VRK::detail
