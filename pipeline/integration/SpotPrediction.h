/// \file
/// Every reflection that a series records, and every frame that records it.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <vector>

#include "pipeline/integration/RockingModel.h"
#include "pipeline/integration/SeriesGeometry.h"

namespace vrk {

/// A reflection on its way through the Ewald sphere.
struct PredictedReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    Eigen::Vector3d g;  ///< at zero tilt, 1/Angstrom
    double length = 0;  ///< |g|
    double tilt = 0;    ///< radians: where it crosses the sphere, or comes nearest to it
    double lorentz =
        0;  ///< |g| / |ds/dt| there: how much slower it crosses than one perpendicular to the axis
    double coverage = 0;  ///< share of its rocking curve that the frames record, 0 to 1
    /// It crosses so obliquely (lorentz above kBlindLorentz) or not at all, that neither its place on the
    /// curve nor its share is known well enough.
    bool blind = false;
    std::uint32_t firstSpot = 0;  ///< in SpotPrediction::spots
    std::uint32_t spotCount = 0;  ///< in the order of the frames
};

/// A reflection as one frame shows it.
struct PredictedSpot {
    std::uint32_t reflection = 0;
    std::uint32_t frame = 0;
    float x = 0;           ///< pixels
    float y = 0;           ///< pixels
    float excitation = 0;  ///< 1/Angstrom
    float rate = 0;        ///< ds/dt, 1/Angstrom per radian
    float share = 0;       ///< RockingModel::share()
};

/// Kabsch's zeta below 0.05 (W. Kabsch, Acta Cryst. D 66 (2010) 133, doi:10.1107/S0907444909047374).
inline constexpr double kBlindLorentz = 20;

struct PredictionLimits {
    double dMin = 0.8;      ///< Angstrom
    double dMax = 1e4;      ///< Angstrom
    char centring = 'P';    ///< whose extinct reflections are left out
    int width = 0;          ///< of the frames, pixels
    int height = 0;         ///< pixels
    double border = 0;      ///< spots nearer than this to the frame's edge are left out, pixels
    double beamRadius = 0;  ///< and those nearer than this to the centre, pixels
};

struct SpotPrediction {
    std::vector<PredictedReflection> reflections;
    std::vector<PredictedSpot> spots;  ///< grouped by reflection
    /// Numbers of the spots, frame after frame: those of frame f are byFrame[frameStart[f]] ...
    /// byFrame[frameStart[f + 1] - 1].
    std::vector<std::uint32_t> byFrame;
    std::vector<std::uint32_t> frameStart;

    std::size_t spotsOf(std::size_t frame) const { return frameStart[frame + 1] - frameStart[frame]; }
};

/// All reflections between the limits that a frame records. A reflection that crosses the sphere twice is one
/// reflection with the spots of both crossings.
/// \param geometry  tilts ascending
/// Throws Failure when there would be more than 20 million reflections within dMin.
SpotPrediction predictSpots(const SeriesGeometry& geometry, const RockingModel& rocking,
                            const PredictionLimits& limits);

}  // namespace vrk
