/// \file
/// Counting of 16-bit values: one pass over the data gives limits and histogram under any exclusions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace VRK::detail {

/// How often each of the 65536 values of a short occurs. Up to 2^32 - 1 values may be counted.
class ValueCounts {
public:
    static constexpr std::size_t kValues = 65536;

    ValueCounts() : m_tables(kTables * kValues, 0), m_pairs(kTables * kValues, 0) {}

    /// \param times what each of the values counts
    void add(std::span<const short> values, std::uint32_t times = 1) {
        // Most values of a series are small: where all are, one increment counts two neighbours.
        constexpr std::size_t kBlock = 32;
        const std::size_t whole = values.size() / kBlock * kBlock;
        for (std::size_t begin = 0; begin < whole; begin += kBlock) {
            const short* block = values.data() + begin;
            unsigned all = 0;
            for (std::size_t i = 0; i < kBlock; ++i)
                all |= static_cast<std::uint16_t>(block[i]);
            if (all >= kSmall) {
                addFours(std::as_bytes(std::span(block, kBlock)), times, m_tables);
                continue;
            }
            std::array<std::uint8_t, kBlock> small;
            for (std::size_t i = 0; i < kBlock; ++i)
                small[i] = static_cast<std::uint8_t>(block[i]);
            addFours(std::as_bytes(std::span(small)), times, m_pairs);
        }
        for (std::size_t i = whole; i < values.size(); ++i)
            m_tables[index(values[i])] += times;
    }

    /// Counts one value several times.
    void add(short value, std::uint32_t times) { m_tables[index(value)] += times; }

    /// Counts what another one counted.
    void add(const ValueCounts& other) {
        for (std::size_t i = 0; i < m_tables.size(); ++i) {
            m_tables[i] += other.m_tables[i];
            m_pairs[i] += other.m_pairs[i];
        }
    }

    std::uint32_t count(short value) const {
        std::uint32_t sum = 0;
        for (std::size_t t = 0; t < kTables; ++t)
            sum += m_tables[t * kValues + index(value)];
        if (index(value) >= kSmall) return sum;
        for (std::size_t row = index(value); row < m_pairs.size(); row += kSmall)
            sum += m_pairs[row];
        for (std::size_t t = 0; t < kTables; ++t)
            for (std::size_t other = 0; other < kSmall; ++other)
                sum += m_pairs[t * kValues + index(value) * kSmall + other];
        return sum;
    }

    /// The smallest and the largest value that was counted; 0 when none was.
    short minimum() const {
        int value = -32768;
        while (value < 32767 && count(static_cast<short>(value)) == 0)
            ++value;
        return count(static_cast<short>(value)) > 0 ? static_cast<short>(value) : short{0};
    }
    short maximum() const {
        int value = 32767;
        while (value > -32768 && count(static_cast<short>(value)) == 0)
            --value;
        return count(static_cast<short>(value)) > 0 ? static_cast<short>(value) : short{0};
    }

private:
    static constexpr std::size_t kTables = 4;
    static constexpr std::size_t kSmall = 256;  ///< values below it fit a byte
    static std::size_t index(short value) { return static_cast<std::uint16_t>(value); }

    /// Counts 16-bit numbers, a multiple of four of them.
    static void addFours(std::span<const std::byte> numbers, std::uint32_t times,
                         std::vector<std::uint32_t>& tables) {
        // Neighbouring pixels are often equal, and an increment that waits for the one before it to
        // reach memory is slow: neighbours therefore count into different tables.
        std::array<std::uint32_t*, kTables> table{};
        for (std::size_t t = 0; t < kTables; ++t)
            table[t] = tables.data() + t * kValues;
        for (std::size_t i = 0; i < numbers.size(); i += sizeof(std::uint64_t)) {
            std::uint64_t four = 0;
            std::memcpy(&four, numbers.data() + i, sizeof(four));
            table[0][four & 0xffff] += times;
            table[1][four >> 16 & 0xffff] += times;
            table[2][four >> 32 & 0xffff] += times;
            table[3][four >> 48] += times;
        }
    }

    std::vector<std::uint32_t> m_tables;
    std::vector<std::uint32_t> m_pairs;  ///< of two neighbours below kSmall
};

}  // namespace VRK::detail
