/// \file
/// Order statistics by counting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace VRK::detail {

// Counting how many values do not exceed a bound is a loop without branches, of which vector units do 4 to 32
// steps at once. Bisecting the range of the values with it finds the value of any rank in some ten passes
// over what lies in the cache, and moves nothing.

std::size_t countUpTo(std::span<const short> values, short bound);

struct Extremes {
    short lowest, highest;
};
/// Of one value at least.
Extremes extremesOf(std::span<const short> values);

struct RangeSum {
    std::size_t count;
    std::int64_t sum;
};
/// Number and sum of the values from \p lowest to \p highest.
RangeSum sumBetween(std::span<const short> values, short lowest, short highest);

/// The value that has \p rank smaller or equal ones before it in ascending order, 0 for the smallest.
/// \param guess  where it may lie: the nearer, the faster
short valueOfRank(std::span<const short> values, std::size_t rank, short guess);

/// The same of numbers that are finite.
class RankedFloats {
public:
    void assign(std::span<const float> values);
    float valueOfRank(std::size_t rank) const;
    /// The middle value, the larger of the two where the number of values is even. There is one at least.
    float upperMedian() const { return valueOfRank(m_keys.size() / 2); }

private:
    std::vector<std::int32_t> m_keys;  ///< whole numbers in the order of the values
    std::int32_t m_lowest = 0;
    std::int32_t m_highest = 0;
};

}  // namespace VRK::detail
