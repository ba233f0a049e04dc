/// \file
/// What a simulated series was made from.
#pragma once

#include <array>
#include <optional>
#include <utility>
#include <vector>

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// A reflection in the volume's frame.
struct SimulatedReflection {
    int h = 0;
    int k = 0;
    int l = 0;
    Vector3 position{};    ///< voxels from the centre of the volume
    double intensity = 0;  ///< counts of the spot per exposure in the diffracting condition
    double time = 0;       ///< exposures in the diffracting condition, all frames together
    double peakCounts =
        0;  ///< highest expected count over background in any frame, before stop and saturation
};

/// Voxels are as large as pixels.
struct SimulationTruth {
    std::array<double, 6> conventionalCell{};
    char centring = 'P';
    std::array<double, 6> primitiveCell{};     ///< Niggli-reduced
    Matrix3 orientation{};                     ///< crystal frame to volume frame
    std::optional<Matrix3> secondOrientation;  ///< of the second crystal
    Matrix3 conventionalVectors{};             ///< rows: reciprocal vectors in the volume, voxels
    Matrix3 primitiveVectors{};                ///< the same for the Niggli-reduced primitive cell
    double axis = 0;                           ///< degrees
    double axisTilt = 0;                       ///< degrees
    double pixelSize = 0;                      ///< 1/metre per pixel
    double kilovolts = 0;
    double wavelength = 0;  ///< Angstrom
    int handedness = 1;
    std::vector<double> tilts;                       ///< of the slices, degrees
    std::vector<std::pair<double, double>> centres;  ///< of the patterns, pixels
    std::vector<int> blankFrames;                    ///< slices that recorded nothing
    int reflectionsInSphere = 0;                     ///< allowed by the centring, up to 1/dmin
    int reflectionsRecorded = 0;                   ///< at least 3 expected counts over background in a frame
    std::vector<SimulatedReflection> reflections;  ///< only on request; of the first crystal

    // What the headers say.
    std::vector<double> statedTilts;
    std::optional<double> statedAxis;
    double statedPixelSize = 0;  ///< 0: none
    double statedKilovolts = 0;  ///< 0: none

    SimulationSettings settings;

    /// The text of the truth file.
    std::string toJson() const;
};

}  // namespace vrk
