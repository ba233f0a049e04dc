/// \file
/// What the tolerances of a lattice symmetry allow, in the form that comparisons need.
#pragma once

#include <algorithm>
#include <cmath>

#include "crystallography/BasicMath.h"
#include "crystallography/LatticeSymmetry.h"

namespace VRK::detail {

/// Limits and scores on misfits of conventional cells: the largest squared sine of the deviations of its
/// angles (free of arc cosines) and the largest relative deviation of its edges.
struct FitLimits {
    /// What rounding does to an exact cell.
    static constexpr double kExactAngle = 1e-6;  ///< degrees
    static constexpr double kExactLength = 1e-8;

    explicit FitLimits(const LatticeTolerances& tolerances)
        : squaredSine(squaredSineOf(tolerances.angle + kExactAngle)),
          length(tolerances.length + kExactLength),
          looseness(loosenessOf(tolerances)) {}

    static bool isExact(double squaredSineOfMisfit, double lengthMisfit) {
        constexpr double sine = kExactAngle / BasicMath::kDegreePerRadian;
        return squaredSineOfMisfit <= sine * sine && lengthMisfit <= kExactLength;
    }
    /// The sum of the squared misfits in units of what is allowed.
    double score(double squaredSineOfMisfit, double lengthMisfit) const {
        const double relative = lengthMisfit / length;
        return squaredSineOfMisfit / squaredSine + relative * relative;
    }

    double squaredSine;
    double length;
    /// Within which a base still counts as nearly reduced: what the tolerances can do to a metric value
    /// relative to the product of its edges.
    double looseness;

private:
    static double squaredSineOf(double angle) {
        const double sine = std::sin(std::clamp(angle, 0.0, 90.0) / BasicMath::kDegreePerRadian);
        return sine * sine;
    }
    static double loosenessOf(const LatticeTolerances& tolerances) {
        const double angle = std::clamp(tolerances.angle, 0.0, 30.0) / BasicMath::kDegreePerRadian;
        return std::min(2.0 * std::max(tolerances.length, 0.0) + 2.0 * std::sin(angle), 0.5) + 1e-6;
    }
};

}  // namespace VRK::detail
