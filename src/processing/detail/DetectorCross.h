/// \file
/// Rows and columns between the chips of a detector.
#pragma once

#include <vector>

#include "processing/detail/SeriesMean.h"

namespace VRK::detail {

/// Rows and columns that count less or more than their neighbours on either side, all along: dead ones, and
/// the wide pixels at the edge of a chip.
struct DetectorCross {
    explicit DetectorCross(const SeriesMean& mean);

    bool empty() const { return rows.empty() && columns.empty(); }
    /// Puts in place of the cross what lies on either side of it.
    void removeFrom(SeriesMean& mean) const;

    std::vector<int> rows;     ///< ascending
    std::vector<int> columns;  ///< ascending
};

}  // namespace VRK::detail
