/// \file
/// What a run found as tables: rows of plain numbers, for plots, data frames and programs in other languages.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "pipeline/run/RunResult.h"

namespace vrk {

/// A reflection as the search found it.
struct ReflectionRow {
    std::int32_t h = 0, k = 0, l = 0;  ///< in the conventional cell; 0 where it has none
    bool indexed = false;              ///< it lies on a node
    bool cut = false;                  ///< its spots touched what was not recorded
    double x = 0.0, y = 0.0, z = 0.0;  ///< from the origin, voxels, rid of the Ewald sphere's curvature
    double tilt = 0.0;                 ///< at which it was seen, degrees
    double intensity = 0.0;            ///< sum of its voxels, counts
    double spacing = 0.0;              ///< d, Angstrom
};

/// A frame of the series, in ascending order of tilt.
struct FrameRow {
    double tilt = 0.0;         ///< degrees
    double x = 0.0, y = 0.0;   ///< centre of the pattern, pixels
    double centreSigma = 0.0;  ///< its standard uncertainty, pixels
    bool jumped = false;       ///< the beam jumped
    bool doubtful = false;     ///< the centre is
    double scale = 1.0;        ///< by which its intensities were divided, at low resolution; 1 without
};

/// An intensity measured on the frames, not scaled.
struct IntensityRow {
    std::int32_t h = 0, k = 0, l = 0;  ///< in the conventional cell
    double intensity = 0.0, sigma = 0.0;
    double spacing = 0.0;     ///< d, Angstrom
    double x = 0.0, y = 0.0;  ///< where it crosses the Ewald sphere, pixels
    double frame = 0.0;       ///< at the crossing, from 0, with fraction
    double tilt = 0.0;        ///< at the crossing, degrees
    double coverage = 0.0;    ///< share of its rocking curve that was recorded
    bool good = false;        ///< it can be used (IntegratedReflection::good())
};

/// An intensity that was scaled and has the uncertainty of the error model.
struct ObservationRow {
    std::int32_t h = 0, k = 0, l = 0;
    double intensity = 0.0, sigma = 0.0;
    double spacing = 0.0;  ///< d, Angstrom
    double frame = 0.0;    ///< from 0, with fraction
    double scale = 1.0;    ///< by which it was divided
    bool outlier = false;
};

/// A unique intensity in the Laue group that was chosen.
struct MergedRow {
    std::int32_t h = 0, k = 0, l = 0;
    double intensity = 0.0, sigma = 0.0;
    double spacing = 0.0;  ///< d, Angstrom
    std::int32_t observations = 0;
};

/// A cell with its standard uncertainties.
struct CellRow {
    std::array<double, 6> cell{};   ///< a, b, c in Angstrom, alpha, beta, gamma in degrees
    std::array<double, 6> sigma{};  ///< 0 for what symmetry fixes
    double volume = 0.0;            ///< cubic Angstrom
    double volumeSigma = 0.0;
    std::string bravais;  ///< "cI"; "aP" of the reduced cell
};

std::vector<ReflectionRow> reflectionRows(const RunResult& result);
std::vector<FrameRow> frameRows(const RunResult& result);
/// \name Empty where no intensities were measured.
/// @{
std::vector<IntensityRow> intensityRows(const RunResult& result);
std::vector<ObservationRow> observationRows(const RunResult& result);
std::vector<MergedRow> mergedRows(const RunResult& result);
/// @}

/// The conventional cell under the ties of its lattice type.
CellRow conventionalCell(const RunResult& result);
/// The Niggli-reduced cell, free.
CellRow reducedCell(const RunResult& result);

}  // namespace vrk
