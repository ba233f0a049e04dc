/// \file
/// What the crystals of a session say together about the microscope.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/batch/CrystalTable.h"

namespace vrk {

/// The geometry that the series of a batch have in common.
struct InstrumentTrend {
    std::optional<CombinedCalibration> common;  ///< none where fewer than three series tell anything
    std::vector<std::size_t> rows;              ///< that it was made of
    std::vector<std::size_t> elsewhere;         ///< trusted ones with another axis: places in the table
    std::string remark;                         ///< what was left out and why; empty: nothing
};

/// Of the crystals whose lattice may be trusted (CrystalFacts::lattice high or fair) and that were run
/// without a known geometry: those at the camera length that most have, with an axis within 2 degrees of the
/// direction that most agree on, t and t + 180 being one line. Their values are combined as `vrk calibrate`
/// does; what no more than half of them show is left out.
InstrumentTrend instrumentTrend(const std::vector<CrystalRow>& rows);

}  // namespace vrk
