/// \file
/// The whole way from a raw tilt series to cell and indexed reflections.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/run/RunOptions.h"
#include "pipeline/run/RunResult.h"
#include "pipeline/run/RunStages.h"

namespace vrk {

/// Parts of the progress of a run: eight of run() itself, and the writing of the results, which is the
/// caller's.
inline constexpr int kRunParts = 9;

/// What a run had when it ended early, for those who look for the reason.
struct RunRemains {
    std::vector<std::string> assumed;  ///< what neither series nor caller state, with the option that does
    std::optional<ReciprocalVolume> volume;
    std::optional<Level> level;  ///< reflections of the volume, the strong ones
};

/// Series -> CentredSeries -> ReciprocalVolume -> Levels -> LatticeChoice -> Indexed -> Intensities, each by
/// a function that can be called alone (Series.h, PreparedSeries.h, ReciprocalVolume.h, Levels.h,
/// LatticeChoice.h, Indexing.h, Intensities.h) and can be another one (RunStages.h). Throws Failure with what
/// was wrong and what to try: Failed for input that cannot be processed, NothingFound when there are no
/// reflections or no lattice among them; the text begins with what had to be assumed. \param remains receives
/// what there was when the run fails; may be null \param stages   what does the work; RunStages() is the
/// pipeline's own
RunResult run(const std::filesystem::path& series, const RunOptions& options, Session& session,
              RunRemains* remains = nullptr, const RunStages& stages = {});

/// The same of a series in memory, a tilt series with its headers.
RunResult run(std::unique_ptr<VoxMRCData> series, const RunOptions& options, Session& session,
              RunRemains* remains = nullptr, const RunStages& stages = {});

/// The same from centred frames on. Intensities are measured where the series has its counts.
RunResult run(CentredSeries series, const RunOptions& options, Session& session,
              RunRemains* remains = nullptr, const RunStages& stages = {});

}  // namespace vrk
