#include "VoxCore/DataModel/VoxHistogram.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <ostream>
#include <span>

#include "VoxCore/DataModel/detail/ValueCounts.h"
#include "foundation/Narration.h"

namespace {

constexpr int kLowest = std::numeric_limits<short>::min();
constexpr int kHighest = std::numeric_limits<short>::max();

struct CountedValue {
    short value;
    unsigned count;
};

/// The values that occur and are not excluded, ascending.
std::vector<CountedValue> valuesThatCount(const VRK::detail::ValueCounts& counts,
                                          const std::vector<short>& excluded) {
    std::vector<bool> skip(VRK::detail::ValueCounts::kValues, false);
    for (const short v : excluded)
        skip[static_cast<std::size_t>(v - kLowest)] = true;
    std::vector<CountedValue> values;
    for (int v = kLowest; v <= kHighest; ++v) {
        if (skip[static_cast<std::size_t>(v - kLowest)]) continue;
        const auto value = static_cast<short>(v);
        if (const unsigned count = counts.count(value)) values.push_back({value, count});
    }
    return values;
}

}  // namespace

template <typename T>
VoxHistogram<T>::VoxHistogram(VoxArray<T>* data, unsigned short binCount, std::vector<T> excluded)
    : m_Data(data), m_BinCount(binCount), m_Bins(binCount, 0), m_ExcludedValues(std::move(excluded)) {}

template <typename T>
void VoxHistogram<T>::Update() {
    VRK::detail::ValueCounts counts;
    for (unsigned c = 0; m_Data && c < m_Data->GetChunkCount(); ++c)
        counts.add(std::span<const T>(m_Data->GetChunkPointer(c), m_Data->GetChunkSize()));
    UpdateFromCounts(counts);
}

template <typename T>
void VoxHistogram<T>::UpdateFromCounts(const VRK::detail::ValueCounts& counts) {
    std::ostream& narration = VRK::narration();
    narration << "  VoxHistogram Update\n    Excluded values:\n";
    for (const T v : m_ExcludedValues)
        narration << "    " << v << '\n';
    m_Bins.assign(m_BinCount, 0);

    const std::vector<CountedValue> values = valuesThatCount(counts, m_ExcludedValues);
    if (!values.empty()) {
        m_MinValue = values.front().value;
        m_MaxValue = values.back().value;
    } else {
        // Nothing remains to be counted: the array says so.
        const VoxArray<T> nothing;
        const VoxArray<T>& data = m_Data ? *m_Data : nothing;
        m_MinValue = data.GetMinValue(m_ExcludedValues);
        m_MaxValue = data.GetMaxValue(m_ExcludedValues);
    }

    narration << "    Calculating Histogram\n";
    const std::int64_t range = std::max(m_MaxValue - m_MinValue, 1);
    for (const auto& [value, count] : values) {
        if (m_Bins.empty()) break;
        const std::int64_t bin = std::int64_t{value - m_MinValue} * (m_BinCount - 1) / range;
        m_Bins[static_cast<std::size_t>(bin)] += count;
    }
    narration << "  VoxHistogram Update complete\n";
}

template class VoxHistogram<short>;
