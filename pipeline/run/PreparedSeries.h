/// \file
/// A series that is ready for the reconstruction.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "pipeline/geometry/CentreRefinement.h"
#include "pipeline/run/Preprocessing.h"
#include "pipeline/run/RadialNoise.h"
#include "pipeline/run/Series.h"
#include "processing/PatternCentre.h"
#include "processing/RecordedPixels.h"
#include "tiltaxis/TiltAxisScore.h"

namespace vrk {

/// Direction of the tilt axis in the frames, degrees; along (-sin t, cos t).
struct TiltAxis {
    double angle = 0.0;
    double uncertainty = 0.0;  ///< standard uncertainty of a search or a calibration; 0 otherwise
    /// "option", "calibration", "header", "search", "assumed", or "refined": moved or, where nobody stated
    /// it, confirmed by the reflections.
    std::string source = "assumed";
    std::optional<double> stated;            ///< what an axis refined since was before, degrees
    std::vector<TiltAxisScore> scores = {};  ///< of the angles that a search tried
};

/// Square frames without hot spots, the direct beam in the middle, the background taken off.
struct CentredSeries {
    std::unique_ptr<VoxMRCData> frames;
    SeriesFacts facts;
    RadialNoise noise;
    std::vector<PatternCentre> centres = {};  ///< where the beam was in the frames as they came, pixels
    RecordedPixels recorded = {};             ///< before any rotation
    double rotation = 0.0;                    ///< by which the frames were turned since, degrees
    RecordedCounts counts = {};               ///< before they were centred; without frames: not kept
};
/// \param keepCounts  the frames before they were centred are needed later
CentredSeries centre(Series series, const CentreChoice& choice, bool keepCounts, Session& session);

/// The axis by choice, in frames without the distortion that is known of them. Throws Failure when a search
/// finds none.
TiltAxis findAxis(const CentredSeries& series, const AxisChoice& choice, Session& session);

/// The same frames with the centres of the patterns put right.
/// \param shifts  one for each pattern, in frames with the tilt axis at \p axis degrees
CentredSeries recentred(const CentredSeries& series, const std::vector<CentreShift>& shifts, double axis,
                        Session& session);

/// The same frames rotated so that the tilt axis lies along y, without the distortion that is known of them.
CentredSeries rotate(const CentredSeries& series, const TiltAxis& axis, Session& session);

}  // namespace vrk
