/// \file
/// Vectors, matrices and rotations of the simulator.
#pragma once

#include <array>

#include "pipeline/simulation/SimulationRandom.h"

namespace vrk {

using Vector3 = std::array<double, 3>;
using Matrix3 = std::array<Vector3, 3>;  ///< rows

Vector3 operator*(const Matrix3& matrix, const Vector3& vector);
Matrix3 operator*(const Matrix3& a, const Matrix3& b);
double dot(const Vector3& a, const Vector3& b);
Vector3 cross(const Vector3& a, const Vector3& b);
/// The vector divided by its length, which must not be zero.
Vector3 unit(const Vector3& vector);

/// The rotation about a unit vector by an angle in degrees, counter-clockwise seen from its tip.
Matrix3 rotationAbout(const Vector3& axis, double degrees);
/// Rz(first) Rx(second) Rz(third), degrees.
Matrix3 eulerRotation(const Vector3& angles);
/// Uniformly distributed rotation (K. Shoemake, Graphics Gems III, 1992, pp. 124-132).
Matrix3 randomRotation(SimulationRandom random);

}  // namespace vrk
