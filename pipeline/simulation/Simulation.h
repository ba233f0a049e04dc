/// \file
/// Simulated tilt series of kinematical electron diffraction patterns, with the truth they were made from.
///
/// Frames and signs. The volume frame has x along the image's radial direction at zero tilt, y along the tilt
/// axis and z so that a point (u, v) of the pattern at tilt t lies at (u cos t, v, u sin t). The plane of
/// that pattern has the normal n = (-sin t, 0, cos t). A pattern does not show this plane but the Ewald
/// sphere that touches it in the origin: a reciprocal point g is on the sphere when
///
///     g . n = handedness * wavelength * |g|^2 / 2.
///
/// A reflection is recorded where its projection along n falls, (u, v) = (gx cos t + gz sin t, gy): behind
/// the objective lens the distance from the centre goes with the sine of the scattering angle, so the
/// projection is exact. In the frame the radial direction is (cos a, sin a) and the axis (-sin a, cos a) in
/// pixel coordinates (x to the right, y down the file), where a is the angle of the tilt axis, and the centre
/// is at (size - 1) / 2 plus the drift.
///
/// Rocking. The intensity of a reflection at the distance s from the sphere is that on the sphere times
/// exp(-s^2 / (2 width^2)). Continuous rotation averages it over the rotation of the frame, precession over
/// the precession circle, a stepwise series takes it at the frame's tilt alone.
///
/// Intensities are scaled so that the 99.5th percentile of all reflections would have the given peak
/// height when exactly on the sphere.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VoxProgressObserver.h"
#include "pipeline/simulation/SimulatedCrystal.h"
#include "pipeline/simulation/SimulatedDetector.h"

namespace vrk {

enum class RotationMode { Continuous, Stepwise, Precession };

struct SimulationSettings {
    // Crystal
    std::array<double, 6> cell = {10, 10, 10, 90, 90, 90};  ///< Angstrom, degrees
    char centring = 'P';                                    ///< P A B C I F R (hexagonal axes, obverse)
    std::string cif;                     ///< a structure instead of cell, centring and random intensities
    double bFactor = 2;                  ///< isotropic displacement B in square Angstrom
    double dmin = 0.8;                   ///< resolution at the frame's edge, Angstrom
    std::optional<Matrix3> orientation;  ///< crystal frame to volume frame; random when absent
    double secondCrystal = 0;            ///< intensity of a second crystal in random orientation
    double rockingWidth = 0.0025;        ///< standard deviation about the sphere, 1/Angstrom
    int handedness = 1;                  ///< side of the Ewald sphere, 1 or -1

    // Series
    std::vector<double> tilts;  ///< degrees, in the order of the slices; at most 300
    double frameRotation = 0;   ///< degrees that a continuous frame covers; 0: the mean step of the tilts
    RotationMode mode = RotationMode::Continuous;
    double precessionAngle = 1;  ///< degrees
    double axis = 0;             ///< direction of the tilt axis, degrees
    bool writeAxis = false;      ///< state the axis in the slices' headers
    double kilovolts = 200;
    int missing = 0;   ///< frames left out of the series, at random
    int blank = 0;     ///< frames that recorded nothing, at random
    double drift = 0;  ///< how far the centre wanders in the course of the series, pixels
    double jump = 0;   ///< step of the centre at a random frame, pixels

    // Recording
    DetectorSettings detector;
    double spotWidth = 1.2;        ///< standard deviation of a spot, pixels
    double peakCounts = 10000;     ///< peak height of strong reflections
    bool keepReflections = false;  ///< fill SimulationTruth::reflections

    std::uint64_t seed = 1;
};

/// A reflection in the volume's frame.
struct SimulatedReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    Vector3 position{};     ///< voxels from the centre of the volume
    double intensity = 0;   ///< counts of the whole spot exactly on the sphere
    double peakCounts = 0;  ///< highest expected count over background in any frame
};

/// What a series was made from. Voxels are as large as pixels.
struct SimulationTruth {
    std::array<double, 6> conventionalCell{};
    char centring = 'P';
    std::array<double, 6> primitiveCell{};  ///< Niggli-reduced
    Matrix3 orientation{};                  ///< crystal frame to volume frame
    Matrix3 conventionalVectors{};          ///< rows: reciprocal vectors in the volume, voxels
    Matrix3 primitiveVectors{};             ///< the same for the Niggli-reduced primitive cell
    double axis = 0;                        ///< degrees
    double pixelSize = 0;                   ///< 1/metre per pixel
    double wavelength = 0;                  ///< Angstrom
    int handedness = 1;
    std::vector<double> tilts;                       ///< of the slices, degrees
    std::vector<std::pair<double, double>> centres;  ///< of the patterns, pixels
    int reflectionsInSphere = 0;                     ///< allowed by the centring, up to 1/dmin
    int reflectionsRecorded = 0;                   ///< at least 3 expected counts over background in a frame
    std::vector<SimulatedReflection> reflections;  ///< only on request; of the first crystal

    nlohmann::json toJson() const;
};

struct SimulatedSeries {
    std::unique_ptr<VoxMRCData> series;  ///< a tilt series with complete headers, x fastest in a slice
    SimulationTruth truth;
};

/// The same settings always give the same series. Progress is counted in frames; a cancelled simulation
/// returns a null series. Throws Failure (usage) when the settings contradict each other.
SimulatedSeries simulateSeries(const SimulationSettings& settings, VoxProgressObserver* progress = nullptr);

}  // namespace vrk
