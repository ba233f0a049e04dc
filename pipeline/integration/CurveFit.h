/// \file
/// Intensities of reflections from their counts on all frames.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/ProfileFit.h"
#include "pipeline/integration/RockingModel.h"
#include "pipeline/integration/SpotPrediction.h"

namespace vrk {

enum ReflectionFlag : std::uint8_t {
    kReflectionBlind = 1,      ///< PredictedReflection::blind
    kReflectionCut = 2,        ///< the frames cover less than kCutCoverage of its curve; the fit completes it
    kReflectionSaturated = 4,  ///< saturated pixels in it; they were left out
    kReflectionMasked = 8,     ///< pixels without measurement in it; the profile completes it
    kReflectionOverlapped = 16,  ///< shares pixels with another one
    kReflectionOutlier = 32,     ///< disagrees with its equivalents
    kReflectionUnfitted = 64,    ///< no intensity
    kReflectionShared = 128      ///< a spot of another crystal covers it
};
inline constexpr double kCutCoverage = 0.7;

/// The counts of a reflection laid over its rocking curve.
struct CurveFit {
    double intensity = 0;  ///< counts of the whole spot exactly on the sphere
    double sigma = 0;      ///< 0: not fitted
    double chiSquare = 0;  ///< of the frames about the curve
    int frames = 0;        ///< that took part
    double best = 0;       ///< largest share of the curve among these
    double coverage = 0;   ///< of the curve by these frames
};

/// Counts with their variance, on one frame.
struct FrameCounts {
    float counts = 0;
    float ground = 0;  ///< variance without the reflection's own counts
    bool known = false;
};

/// How well the expected course of the curves is known.
struct CurveErrors {
    double relative = 0;            ///< see GeometryFit::curveError
    std::span<const double> tilts;  ///< standard uncertainties of the frames' tilts, radians; empty: exact
};

/// Fits intensity times curve to the counts of every reflection by least squares. Frames weigh with the
/// variance of the counts that the fit itself expects there, found in three rounds, and with the
/// errors of the curve: frames where a reflection hardly shows do not disturb, and curves that the series or
/// lost frames cut are completed. \param gain    of the detector, for the variance of the expected counts
/// \param errors  of the curves
std::vector<CurveFit> fitCurves(const SpotPrediction& prediction, const SeriesGeometry& geometry,
                                const RockingModel& rocking, std::span<const FrameCounts> counts, double gain,
                                const CurveErrors& errors);

/// The same counts as FrameCounts. Overlapped or disturbed sums are not known.
std::vector<FrameCounts> frameCounts(std::span<const MeasuredSpot> measured);

/// Fitted counts, which know their own variance: fitCurves() takes them with a gain of 0.
std::vector<FrameCounts> frameCounts(std::span<const FittedSpot> fitted);

/// Expected counts of every spot by the fits of it and its equivalents, with expectedIntensity(): variances
/// that follow the noise of the measurement would favour what came out too low. All equivalents that agree
/// have one expectation, so that none has a weight in their mean that its own noise gave it. 0 for
/// reflections that were not fitted. \param rotations  Friedel mates are equivalents without any
std::vector<float> expectedCounts(const SpotPrediction& prediction, std::span<const CurveFit> fits,
                                  const LaueRotations& rotations);

}  // namespace vrk
