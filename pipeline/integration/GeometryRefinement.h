/// \file
/// The geometry of a series from its own spots.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pipeline/integration/SpotMeasurement.h"

namespace vrk {

/// A spot that does not lie where the refined geometry puts it.
struct GeometryOutlier {
    std::uint32_t spot = 0;  ///< in the prediction
    double dx = 0;           ///< observed - calculated, pixels
    double dy = 0;
    double deviations = 0;  ///< in standard deviations
};

struct GeometryFit {
    SeriesGeometry geometry;
    RockingModel rocking;

    std::array<double, 6> cell{};       ///< Angstrom, degrees
    std::array<double, 6> cellSigma{};  ///< standard uncertainties; 0 for what the ties fix
    /// Standard uncertainties of the common parameters, in the order of FrameView::Column; 0 for those that
    /// were not refined.
    GeometryStep sigma = GeometryStep::Zero();
    double widthSigma = 0;            ///< of RockingModel::width, 1/Angstrom
    double mosaicitySigma = 0;        ///< radians; 0 when it was not refined
    std::vector<double> centreSigma;  ///< of every frame (each coordinate), pixels; 0: from its neighbours
    std::vector<double> tiltSigma;    ///< of every frame's tilt, radians; empty: not refined

    double residual = 0;    ///< robust standard deviation of a coordinate of a spot, pixels
    double scatter = 0;     ///< what of it counting statistics does not explain, pixels
    double curveError = 0;  ///< relative deviation of the rocking curves that counting does not explain
    double tiltResidual =
        0;           ///< root mean square distance of the observed crossings from the sphere, radians
    int spots = 0;   ///< places that were fitted
    int curves = 0;  ///< reflections whose rocking curves were fitted
    int rounds = 0;
    std::vector<std::string> terms;  ///< optional parameters that the data asked for
    std::vector<GeometryOutlier> outliers;
};

struct GeometryOptions {
    bool centres = true;             ///< refine the centre of every frame
    bool optional = true;            ///< try distortion, tilt scale, pitch of the axis, mosaicity
    bool tilts = true;               ///< try a correction of every frame's tilt
    std::vector<std::string> terms;  ///< optional parameters that are refined from the beginning
    std::vector<std::string> kept;   ///< optional parameters that stay as they are
};

/// Refines orientation and cell under the ties of its type, axis, centres, distortion, tilts and the width of
/// the rocking curves together.
///
/// Observations are the places of the spots and the counts of every reflection on each frame. A place weighs
/// by its counting statistics plus a scatter that is found from the residuals. The counts of a reflection,
/// divided by nobody, are compared with its rocking curve times an intensity of its own, which is eliminated
/// (variable projection: G. H. Golub and V. Pereyra, Inverse Problems 19 (2003) R1,
/// doi:10.1088/0266-5611/19/2/201): the ratio of the counts on neighbouring frames tells the angle at which
/// it crossed far better than the middle of the frames, which is the classical observation (W. Kabsch, Acta
/// Cryst. D 66 (2010) 133, doi:10.1107/S0907444909047374). Weights are Tukey's, the scale is found from the
/// median deviations; the centres of the frames are eliminated frame by frame.
///
/// Pitch of the axis, tilt scale, ellipse, radial and spiral distortion and mosaic spread are taken up one
/// after the other, the most significant first, while each explains more than its kind of noise would once in
/// a million series. The component of an ellipse that the cell could imitate (stretch along the axis, where
/// no tie of the cell forbids it) is never refined. Corrections of single tilts are taken up when together
/// they improve the curves by more than their number; they are held by a normal prior whose width is
/// estimated from them.
///
/// \param prediction  wide enough that the curves are in it
/// \param measured    one entry a predicted spot
/// Returns the start, with spots = 0, when fewer than twelve places are known.
GeometryFit refineGeometry(const SeriesGeometry& start, const RockingModel& rocking,
                           const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                           std::span<const SpotCentroid> centroids, const GeometryOptions& options = {});

struct CurveMisfit {
    double mean = 0;     ///< square deviation
    double freedom = 0;  ///< over which it is the mean
};

/// The mean square deviation of the counts of strong reflections, hardly more than \p most, from their
/// rocking curves, in units of their variance and a relative error of 5 %; deviations are limited to six.
/// Tells models of the curves apart.
CurveMisfit curveMisfit(const SeriesGeometry& geometry, const RockingModel& rocking,
                        const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                        std::size_t most = 400);

}  // namespace vrk
