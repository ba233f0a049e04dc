#include "pipeline/run/RunResult.h"

#include <limits>
#include <numbers>

namespace vrk {

double RunResult::refinedAxis() const {
    const RefinedInstrument& instrument = indexed.instrument;
    if (!instrument.valid || !instrument.uses(InstrumentTerm::AxisTurn)) return axis.angle;
    return axis.angle + instrument.model[InstrumentTerm::AxisTurn] * 180.0 / std::numbers::pi;
}

double RunResult::refinedAxisSigma() const {
    const RefinedInstrument& instrument = indexed.instrument;
    if (!instrument.valid) return std::numeric_limits<double>::infinity();
    return instrument.axisSigma * 180.0 / std::numbers::pi;
}

}  // namespace vrk
