/// \file
/// The whole way from a raw tilt series to cell and indexed reflections.
#pragma once

#include <filesystem>

#include "pipeline/base/Session.h"
#include "pipeline/run/RunOptions.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// Series -> CentredSeries -> ReciprocalVolume -> Levels -> LatticeChoice -> Indexed, each by a function that
/// can be called alone (Series.h, PreparedSeries.h, ReciprocalVolume.h, Levels.h, LatticeChoice.h,
/// Indexing.h). Throws Failure with what was wrong and what to try: Failed for input that cannot be
/// processed, NothingFound when there are no reflections or no lattice among them.
RunResult run(const std::filesystem::path& series, const RunOptions& options, Session& session);

}  // namespace vrk
