#include "foundation/detail/Selection.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace VRK::detail {
namespace {

/// Counters of 16 bits hold what is counted in a block.
constexpr std::size_t kCountedBlock = 32768;

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
unsigned short
countShorts(const short* values, std::size_t n, short bound) {
    unsigned short count = 0;
    for (std::size_t i = 0; i < n; ++i)
        count = static_cast<unsigned short>(count + (values[i] <= bound ? 1 : 0));
    return count;
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
std::uint32_t
countKeys(const std::int32_t* keys, std::size_t n, std::int32_t bound) {
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < n; ++i)
        count += keys[i] <= bound ? 1U : 0U;
    return count;
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void sumShorts(const short* values, std::size_t n, short lowest, short highest, std::uint32_t& count,
               std::int32_t& sum) {
    std::uint32_t within = 0;
    std::int32_t total = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const std::int32_t mask = ((values[i] >= lowest) & (values[i] <= highest)) != 0 ? -1 : 0;
        within += static_cast<std::uint32_t>(mask & 1);
        total += values[i] & mask;
    }
    count = within;
    sum = total;
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void findExtremes(const short* values, std::size_t n, short& lowest, short& highest) {
    short least = values[0];
    short most = values[0];
    for (std::size_t i = 1; i < n; ++i) {
        least = std::min(least, values[i]);
        most = std::max(most, values[i]);
    }
    lowest = least;
    highest = most;
}

/// Numbers that do not fall have the keys of whole numbers that do not fall.
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
void formKeys(const float* values, std::size_t n, std::int32_t* keys, std::int32_t& lowest,
              std::int32_t& highest) {
    std::int32_t least = std::numeric_limits<std::int32_t>::max();
    std::int32_t most = std::numeric_limits<std::int32_t>::min();
    for (std::size_t i = 0; i < n; ++i) {
        const auto bits = std::bit_cast<std::int32_t>(values[i]);
        const std::int32_t key = bits ^ ((bits >> 31) & 0x7fffffff);
        keys[i] = key;
        least = std::min(least, key);
        most = std::max(most, key);
    }
    lowest = least;
    highest = most;
}

}  // namespace

std::size_t countUpTo(std::span<const short> values, short bound) {
    std::size_t count = 0;
    for (std::size_t begin = 0; begin < values.size(); begin += kCountedBlock)
        count += countShorts(values.data() + begin, std::min(kCountedBlock, values.size() - begin), bound);
    return count;
}

Extremes extremesOf(std::span<const short> values) {
    Extremes extremes{};
    findExtremes(values.data(), values.size(), extremes.lowest, extremes.highest);
    return extremes;
}

RangeSum sumBetween(std::span<const short> values, short lowest, short highest) {
    RangeSum result{0, 0};
    for (std::size_t begin = 0; begin < values.size(); begin += kCountedBlock) {
        std::uint32_t count = 0;
        std::int32_t sum = 0;
        sumShorts(values.data() + begin, std::min(kCountedBlock, values.size() - begin), lowest, highest,
                  count, sum);
        result.count += count;
        result.sum += sum;
    }
    return result;
}

short valueOfRank(std::span<const short> values, std::size_t rank, short guess) {
    const auto reaches = [&](int bound) { return countUpTo(values, static_cast<short>(bound)) > rank; };
    // The value lies above the one bound and not above the other.
    int below = std::numeric_limits<short>::min() - 1;
    int above = std::numeric_limits<short>::max();
    for (int bound = guess, step = 1; above - below > 1; step *= 2) {
        const bool reached = reaches(bound);
        (reached ? above : below) = bound;
        const int next = reached ? bound - step : bound + step;
        if (next <= below || next >= above) break;
        bound = next;
    }
    while (above - below > 1) {
        const int middle = below + (above - below) / 2;
        (reaches(middle) ? above : below) = middle;
    }
    return static_cast<short>(above);
}

void RankedFloats::assign(std::span<const float> values) {
    m_keys.resize(values.size());
    formKeys(values.data(), values.size(), m_keys.data(), m_lowest, m_highest);
}

float RankedFloats::valueOfRank(std::size_t rank) const {
    std::int64_t below = std::int64_t{m_lowest} - 1;
    std::int64_t above = m_highest;
    while (above - below > 1) {
        const std::int64_t middle = below + (above - below) / 2;
        const bool reached =
            countKeys(m_keys.data(), m_keys.size(), static_cast<std::int32_t>(middle)) > rank;
        (reached ? above : below) = middle;
    }
    const auto key = static_cast<std::int32_t>(above);
    return std::bit_cast<float>(key ^ ((key >> 31) & 0x7fffffff));
}

}  // namespace VRK::detail
