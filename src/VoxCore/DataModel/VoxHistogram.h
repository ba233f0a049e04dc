/// \file
/// Grey-value histogram of an image stack or volume.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxArray/VoxArray.h"

namespace VRK::detail {
class ValueCounts;
}

/// Histogram over equal ranges from the smallest to the largest value. Excluded values (zero, where a
/// volume was never filled) are neither counted nor taken as smallest or largest.
///
/// Value v falls into bin (v - minimum) * (bins - 1) / (maximum - minimum), rounded down, so the last bin
/// holds the maximum alone. When all values are equal they are all counted in the first bin.
///
/// \tparam T short; the library holds the code for it.
template <typename T>
class VRKCORE_EXPORT VoxHistogram {
public:
    /// \param data what to count, not owned; it has to exist whenever Update() runs
    VoxHistogram(VoxArray<T>* data, unsigned short binCount, std::vector<T> excluded);

    /// Counts anew, in one pass over the data. Tells of itself on the standard output. When all values
    /// are excluded the warnings of VoxArray::GetMinValue() and GetMaxValue() appear there, minimum and
    /// maximum are the first excluded value and all bins stay 0.
    void Update();
    /// The same from values that were counted before, which have to be those of the data.
    void UpdateFromCounts(const VRK::detail::ValueCounts& counts);

    VoxArray<T>* m_Data;
    T m_MinValue{};
    T m_MaxValue{};
    unsigned short m_BinCount;
    std::vector<unsigned> m_Bins;  ///< m_BinCount entries
    std::vector<T> m_ExcludedValues;
};

extern template class VoxHistogram<short>;
