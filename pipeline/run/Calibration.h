/// \file
/// The geometry of an instrument from series of crystals.
#pragma once

#include <Eigen/Core>
#include <array>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "crystallography/BravaisTypes.h"
#include "pipeline/formats/InstrumentFile.h"
#include "pipeline/geometry/InstrumentRefinement.h"
#include "pipeline/latticesearch/Lattice.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// The reflections of a series and what is known of them.
struct CalibrationInput {
    std::string name;                        ///< of series or folder
    std::vector<Eigen::Vector3d> positions;  ///< voxels, not corrected for curvature
    std::vector<double> tilts;               ///< at which each was seen, radians
    Lattice lattice;                         ///< reduced; with the pixel size
    LATTICE::BravaisTypes type = LATTICE::aP;
    Eigen::Matrix3d toConventional = Eigen::Matrix3d::Identity();
    Eigen::Vector3d centre = Eigen::Vector3d::Zero();  ///< of the volume, voxels
    int width = 0;                                     ///< of the frames, pixels
    double wavelength = 0.0;                           ///< Angstrom
    int sense = 0;                                     ///< of the tilt, as in EwaldCurvature
    double axisAngle = 0.0;                            ///< about which the volume was built, degrees
};

/// Of a run without a known geometry.
CalibrationInput calibrationInput(const std::string& name, const RunResult& result);

/// What one series tells.
struct SeriesCalibration {
    std::string name;
    LATTICE::BravaisTypes type = LATTICE::aP;
    bool hasTies = false;  ///< of the lattice type, or of a cell that is known
    bool hasCell = false;  ///< a cell is known
    int width = 0;
    double pixelSize = 0.0;
    double axisAngle = 0.0;        ///< about which the volume was built, degrees
    RefinedInstrument instrument;  ///< every term that the series determines
    std::optional<CalibratedValue> pixelScale;
};

/// Refines all terms that the reflections determine, under the ties of the lattice type or, where a cell is
/// given, under its shape. Throws Failure (NothingFound) when the lattice is not that of the cell or the
/// reflections do not determine anything.
/// \param cell  a, b, c in Angstrom, alpha, beta, gamma in degrees
SeriesCalibration calibrate(const CalibrationInput& input, const std::optional<std::array<double, 6>>& cell);

/// How far the series differ in a number.
struct CalibrationScatter {
    std::string key;       ///< as in the file
    int series = 0;        ///< that determine it
    double scatter = 0.0;  ///< standard deviation of the series about the mean; 0 for one
};

struct CombinedCalibration {
    InstrumentCalibration calibration;
    std::vector<CalibrationScatter> scatters;
};

/// The weighted means. Where the series differ by more than their uncertainties, what they have in common is
/// told as well by each as by the other: a variance between the series is added, found by their scatter
/// (R. C. Paule and J. Mandel, J. Res. Natl. Bur. Stand. 87 (1982) 377, doi:10.6028/jres.087.022). Throws
/// Failure (Usage) when the series were recorded at different camera lengths.
CombinedCalibration combined(std::span<const SeriesCalibration> series);

}  // namespace vrk
