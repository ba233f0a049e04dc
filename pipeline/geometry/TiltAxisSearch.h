/// \file
/// The search for the tilt axis as commands use it: in several threads (Workers.h), and finer than its grid
/// of angles.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "tiltaxis/TiltAxisScore.h"

namespace vrk {

enum class TiltAxisMethod { ThreeD, TwoD };

/// Angles that are tried instead of the automatic schedule, degrees.
struct TiltAxisRange {
    double start = 0.0;
    double end = 0.0;
    double step = 1.0;
};

struct TiltAxisResult {
    double angle = 0.0;        ///< degrees: top of a parabola through the scores around the grid angle
    double uncertainty = 0.0;  ///< standard uncertainty of the angle, degrees
    double gridAngle = 0.0;    ///< best of the angles tried
    /// By how many robust standard deviations of all scores of the coarse scan the best one stands out. Right
    /// answers of simulated series had 12 and more, wrong ones less than 3. 0 for a given range.
    double significance = 0.0;
    bool reliable = true;               ///< false when a coarse scan shows no clear peak
    std::vector<TiltAxisScore> scores;  ///< in the order of evaluation
    std::filesystem::path plots;        ///< folder of the score plots
};

/// Finds the angle that VoxMRCstemProcessing::step3_Rotation2TiltAxis() takes.
///
/// \param preprocessed  hot spots removed, centred, background subtracted, not rotated; not changed
/// \param accuracy      finest step of the grid of angles, degrees
/// \param folder        made when it is not there; receives the plots, and the images of the angles in the
/// folder histograms; empty: nothing is kept \throw Failure with exit code 1 when the series cannot be
/// searched, 3 when it gives no angle, and when the
///        user has asked to stop
///
/// Warns when the scores show no clear peak.
TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, double accuracy,
                            const std::filesystem::path& folder, Session& session);

/// The same over the given range of angles.
TiltAxisResult findTiltAxis(const VoxMRCData& preprocessed, TiltAxisMethod method, const TiltAxisRange& range,
                            const std::filesystem::path& folder, Session& session);

/// Angle and standard uncertainty from the scores around the best one.
struct TiltAxisFit {
    double angle = 0.0;
    double uncertainty = 0.0;
};
TiltAxisFit fitTiltAxis(const std::vector<TiltAxisScore>& scores, double gridAngle);

}  // namespace vrk
