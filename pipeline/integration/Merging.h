/// \file
/// Unique intensities and how good they are.
#pragma once

#include <Eigen/Core>
#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Observation.h"
#include "pipeline/integration/WilsonPosterior.h"

namespace vrk {

/// A unique reflection.
struct MergedReflection {
    Indices hkl{};  ///< representative()
    double intensity = 0;
    double sigma = 0;
    double spacing = 0;  ///< Angstrom
    int observations = 0;
    Estimate amplitude;  ///< estimateAmplitudes()
};

/// Weighted means of equivalents, outliers left out, sorted by h, k, l.
std::vector<MergedReflection> merge(std::span<const Observation> observations,
                                    const LaueRotations& rotations);

/// Quality of the data between two spacings. P. R. Evans and G. N. Murshudov, Acta Cryst. D 69 (2013) 1204,
/// doi:10.1107/S0907444913000061, discuss what each number tells.
struct ShellStatistics {
    double dMax = 0;  ///< Angstrom
    double dMin = 0;
    int observations = 0;
    int unique = 0;
    int possible = 0;       ///< unique reflections that the lattice has there
    double iOverSigma = 0;  ///< mean over the unique reflections
    double rInt = 0;        ///< sum of the deviations from the mean by the sum of all, over observations with
                            ///< equivalents; 0 when there are none
    double rMeas = 0;       ///< the same with each deviation times sqrt(n / (n - 1))
    /// Correlation of half data sets, by the variances of the means (G. Assmann, W. Brehm and K. Diederichs,
    /// J. Appl. Cryst. 49 (2016) 1021, doi:10.1107/S1600576716005471), which needs no random halves; 0
    /// without equivalents.
    double ccHalf = 0;

    double completeness() const { return possible > 0 ? static_cast<double>(unique) / possible : 0; }
    double redundancy() const { return unique > 0 ? static_cast<double>(observations) / unique : 0; }
};

struct MergingStatistics {
    ShellStatistics overall;
    std::vector<ShellStatistics> shells;  ///< of equal volume, the innermost first
    double limitByCcHalf = 0;             ///< spacing at which CC1/2 falls to 0.3, Angstrom
    double limitByISigma = 0;             ///< and <I/sigma> to 1
};

/// \param reciprocal  columns of the conventional cell, 1/Angstrom
/// \param dMin        of the outermost shell, Angstrom
MergingStatistics mergingStatistics(std::span<const Observation> observations, const LaueRotations& rotations,
                                    const Eigen::Matrix3d& reciprocal, char centring, double dMin);

}  // namespace vrk
