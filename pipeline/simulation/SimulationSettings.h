/// \file
/// Everything that decides a simulated tilt series.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/geometry/RotationMode.h"
#include "pipeline/simulation/SimulationRotation.h"

namespace vrk {

/// What a spot's counts are proportional to; Simulation.h gives the formulas.
enum class CountModel {
    Time,   ///< the time that the reflection spends in the diffracting condition
    Sphere  ///< a strong reflection that rests on the sphere has the given peak height in any frame
};

/// How the crystal lies in the volume at zero tilt.
struct OrientationSettings {
    std::optional<Matrix3> matrix;     ///< crystal frame to volume frame; leaves nothing to the others
    std::optional<Vector3> beamAlong;  ///< direction [uvw] of the direct lattice along z, the beam
    std::optional<Vector3> axisAlong;  ///< hkl along y, the tilt axis; as near as beamAlong lets it
    double offZone = 0;                ///< degrees by which the crystal is turned away from beamAlong
};

/// Where the centres of the patterns lie in the frames, pixels.
struct CentreSettings {
    std::array<double, 2> offset{};  ///< of all patterns from the middle of the frame, (x, y)
    double drift = 0;                ///< how far the centre wanders smoothly in the course of the series
    double jump = 0;                 ///< length of its steps
    int jumps = 1;                   ///< number of steps, at random frames in random directions
    double jitter = 0;               ///< standard deviation from frame to frame
};

/// How the true tilts differ from those asked for: scale * tilt + offset + a random part.
struct TiltErrors {
    double offset = 0;  ///< degrees
    double scale = 1;
    double jitter = 0;  ///< standard deviation, degrees
};

/// What the headers say where it is not the truth.
struct StatedValues {
    bool axis = false;                ///< state the tilt axis at all
    std::optional<double> axisAngle;  ///< another angle than the true one, degrees
    std::optional<double> tiltStep;   ///< another step, from the first tilt on, degrees
    std::optional<double> kilovolts;  ///< 0: none
    std::optional<double> rotation;   ///< that a frame turns by so much, degrees, or stands still (0)
    double pixelFactor = 1;           ///< stated over true pixel size; 0: none
};

/// Departure of the recorded positions from the ideal ones, about the pattern's centre.
struct DistortionSettings {
    double ellipse = 0;         ///< relative stretch along the azimuth and shrinkage across it
    double ellipseAzimuth = 0;  ///< degrees from x towards y in pixel coordinates
    double radial = 0;          ///< relative displacement outwards at half a width from the centre
};

/// What is recorded around and between the reflections.
struct BackgroundSettings {
    double halo = 1;             ///< factor on the inelastic scattering
    double directBeam = 3e5;     ///< peak of the direct beam, counts per exposure
    double gradient = 0;         ///< relative change of the halo at half a width from the centre
    double gradientAzimuth = 0;  ///< direction in which the halo grows, degrees from x towards y
    double ice = 0;              ///< height of the strongest ring of ice, counts per exposure
};

/// A bar that ends in a disc, or either alone, over the detector.
struct BeamStopSettings {
    double direction = 180;          ///< in which the bar leaves, degrees from x towards y
    std::optional<double> width;     ///< of the bar, pixels; 0.02 frame widths when absent
    std::optional<double> disc;      ///< radius of the disc, pixels; 0.02 frame widths when absent
    std::array<double, 2> offset{};  ///< of the disc from the middle of the frame, pixels (x, y)
    double transmission = 0;         ///< part of the counts that passes
    double pedestal = 0;             ///< counts that are recorded behind it all the same
};

struct DetectorSettings {
    int size = 512;    ///< pixels along x and y
    double noise = 1;  ///< 0: no noise, 1: counting statistics, n: n times their deviation
    double saturation = 30000;
    int hotPixels = 0;   ///< pixels that are bright in every frame
    int zingers = 0;     ///< pixels per frame that are bright in this frame alone
    bool cross = false;  ///< three dead rows and columns in the middle of the detector
};

struct SimulationSettings {
    // Crystal
    std::array<double, 6> cell = {10, 10, 10, 90, 90, 90};  ///< Angstrom, degrees
    char centring = 'P';                                    ///< P A B C I F R (hexagonal axes, obverse)
    std::string cif;     ///< a structure instead of cell, centring and random intensities
    double bFactor = 2;  ///< isotropic displacement B in square Angstrom
    double dmin = 0.8;   ///< resolution at the frame's edge, Angstrom
    OrientationSettings orientation;
    bool evenIntensities = false;      ///< all as bright as the mean; for a cell without structure
    double asymmetry = 0;              ///< standard deviation of ln(intensity), for each of two Friedel mates
    double secondCrystal = 0;          ///< intensity of a second crystal in random orientation
    std::optional<double> secondTurn;  ///< degrees by which it is turned from the first, about a random axis
    std::optional<std::array<double, 6>> secondCell;  ///< its primitive cell, where it is another crystal
    double rockingWidth = 0.0025;                     ///< standard deviation about the sphere, 1/Angstrom
    int handedness = 1;                               ///< side of the Ewald sphere, 1 or -1

    // Series
    std::vector<double> tilts;  ///< degrees, in the order of the slices; at most 300
    TiltErrors tiltErrors;
    double frameRotation = 0;  ///< degrees that a continuous frame covers; 0: the mean step of the tilts
    RotationMode mode = RotationMode::Continuous;
    double precessionAngle = 1;  ///< degrees
    double axis = 0;             ///< direction of the tilt axis in the frame, degrees
    double axisTilt = 0;         ///< by which the tilt axis leaves the plane of the frame towards z, degrees
    double kilovolts = 200;
    CentreSettings centre;
    int missing = 0;  ///< frames left out of the series, at random
    int blank = 0;    ///< frames that recorded nothing, at random
    StatedValues stated;

    // Recording
    CountModel counts = CountModel::Time;
    double dose = 1;            ///< factor on the exposure of every frame
    double peakCounts = 10000;  ///< height of strong reflections
    double spotWidth = 1.2;     ///< standard deviation of a spot, pixels
    DistortionSettings distortion;
    BackgroundSettings background;
    std::optional<BeamStopSettings> beamStop;
    DetectorSettings detector;

    bool keepReflections = false;  ///< fill SimulationTruth::reflections
    std::uint64_t seed = 1;
};

/// Throws Failure (usage) that names the first setting that is out of its range.
void checkSettings(const SimulationSettings& settings);

/// Degrees that the crystal turns during a frame: as given, otherwise the mean step of the tilts.
double frameRotation(const SimulationSettings& settings);

/// The exposure of a frame. Where counts follow the time, a continuous series turns at a constant speed: a
/// frame is exposed in proportion to its rotation, 1 for a degree. All other frames are exposed alike. The
/// dose multiplies it.
double frameExposure(const SimulationSettings& settings);

}  // namespace vrk
