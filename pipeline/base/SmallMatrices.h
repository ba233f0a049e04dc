/// \file
/// Decompositions of matrices of three dimensions, in one place: they are templates that take the compiler
/// long.
#pragma once

#include <Eigen/Core>

namespace vrk {

/// Principal axes of second moments.
struct PrincipalAxes {
    Eigen::Vector3d moments;  ///< rising
    Eigen::Matrix3d axes;     ///< unit vectors in the columns, in the order of the moments
};

/// \param moments  symmetric; the lower triangle is read
PrincipalAxes principalAxes(const Eigen::Matrix3d& moments);

/// The rotation or rotoinversion nearest to a matrix: the orthogonal factor of its polar decomposition.
Eigen::Matrix3d nearestOrthogonal(const Eigen::Matrix3d& matrix);

/// The proper rotation nearest to a matrix (Kabsch 1976, doi:10.1107/S0567739476001873).
Eigen::Matrix3d nearestRotation(const Eigen::Matrix3d& matrix);

}  // namespace vrk
