/// \file
/// From the frames of a series and a first geometry to the intensities of its reflections.
///
/// The steps, each a header of its own: prediction (SpotPrediction.h), sums and places of the spots
/// (SpotMeasurement.h, over the background of LocalBackground.h), refinement of the geometry on these
/// (GeometryRefinement.h), profiles learned from strong spots (SpotProfile.h) and fitted to all
/// (ProfileFit.h), and the rocking curve laid through the counts of each reflection (CurveFit.h).
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/integration/CurveFit.h"
#include "pipeline/integration/FrameStack.h"
#include "pipeline/integration/GeometryRefinement.h"

namespace vrk {

/// How the crystal turned during a frame, as the files of the frames state it.
struct StatedMode {
    RotationMode mode = RotationMode::Continuous;
    double rotation = 0;    ///< of a continuous frame, radians; less than the step where frames have gaps
    double precession = 0;  ///< half angle of the cone, radians
};

/// Who said how the crystal turned.
enum class ModeSource {
    Option,  ///< IntegrationOptions::mode
    Header,  ///< IntegrationInput::stated, which the curves do not contradict
    Curves
};

constexpr const char* nameOf(ModeSource source) {
    return source == ModeSource::Option ? "option" : source == ModeSource::Header ? "header" : "curves";
}

/// What the integration starts from.
struct IntegrationInput {
    /// Frames without hot spots, before any background was taken away. Dead pixels are found beside those
    /// that are given, the saturation when it is not given.
    FrameStack frames;
    /// Conventional cell, axis, tilts (ascending) and centres as far as they are known; the spots must be
    /// within a few pixels of where it puts them.
    SeriesGeometry geometry;
    char centring = 'P';
    double resolution = 0;  ///< to which reflections were seen at least, Angstrom; 0: not known
    std::optional<StatedMode> stated;
};

struct IntegrationOptions {
    std::optional<double> dMin;          ///< Angstrom; found from the data otherwise
    std::optional<double> gain;          ///< counts that one electron makes
    std::optional<RotationMode> mode;    ///< as stated, or found from the curves, otherwise
    double precession = 0;               ///< half angle of the precession cone, radians; 0: found
    bool refine = true;                  ///< the geometry; otherwise only the rocking width
    std::vector<std::string> keptTerms;  ///< GeometryOptions::kept
    /// Optional parameters that the start has and does not know for good (GeometryOptions::terms): what stays
    /// as it is adds nothing to the uncertainties.
    std::vector<std::string> terms;
    /// Called now and then; may throw to stop.
    std::function<void()> checkpoint;
};

/// A reflection with its intensity.
struct IntegratedReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    std::uint8_t flags = 0;   ///< ReflectionFlag
    double intensity = 0;     ///< by profile and curve: counts of the whole spot exactly on the sphere
    double sigma = 0;         ///< standard uncertainty; 0 where there is no intensity
    double sumIntensity = 0;  ///< the same by plain sums of the discs
    double sumSigma = 0;
    double x = 0, y = 0;           ///< where it crosses the sphere, pixels
    double tilt = 0;               ///< at which it crosses, degrees
    double observedTilt = 0;       ///< centroid of its counts over the tilt, degrees
    double observedTiltSigma = 0;  ///< degrees; 0 when the counts do not tell
    double frame = 0;              ///< number of the frame at the crossing, with fraction
    double spacing = 0;            ///< d, Angstrom
    double lorentz = 0;            ///< PredictedReflection::lorentz
    double coverage = 0;           ///< share of its curve that was recorded
    double curveChi = 0;  ///< root mean square deviation of the frames from the curve, standard deviations
    std::uint32_t predicted = 0;  ///< in IntegrationResult::prediction
    /// An intensity that can be used: fitted, not blind, not saturated, no outlier, of one crystal.
    bool good() const {
        return sigma > 0 && (flags & (kReflectionBlind | kReflectionSaturated | kReflectionOutlier |
                                      kReflectionUnfitted | kReflectionShared)) == 0;
    }
};

/// Where a frame shows a spot.
struct ObservedPlace {
    std::uint32_t frame = 0;
    float x = 0;  ///< pixels
    float y = 0;
};

struct IntegrationResult {
    GeometryFit fit;
    std::vector<ObservedPlace> places;  ///< of the spots that the geometry was refined on
    SeriesGeometry start;               ///< as it was given
    NoiseModel noise;
    SpotExtent extent;
    RadialShape shape;
    int saturation = 0;
    std::size_t deadPixels = 0;
    ModeSource modeSource = ModeSource::Option;
    std::vector<std::pair<RotationMode, double>> modeMisfits;  ///< mean square misfit of the curves
    double dMin = 0;                                           ///< Angstrom, of the reflections below
    bool resolutionFound = false;  ///< from the data; otherwise as told, or the edge of the frames
    int profileSpots = 0;          ///< strong spots that the profiles were learned from
    SpotPrediction prediction;
    std::vector<MeasuredSpot> measured;             ///< as prediction.spots
    std::vector<FittedSpot> fitted;                 ///< as prediction.spots
    std::vector<CurveFit> curves;                   ///< as prediction.reflections
    std::vector<IntegratedReflection> reflections;  ///< sorted by h, k, l
    std::vector<std::string> remarks;               ///< what a user should know
};

/// Throws Failure (Failed) when the input cannot be integrated: fewer than three frames, no wavelength,
/// tilts that do not ascend, frames of another size, a gain that contradicts the
/// background; and (NothingFound) when no spot stands out from the
/// background where the geometry puts it.
IntegrationResult integrate(IntegrationInput input, const IntegrationOptions& options = {});

}  // namespace vrk
