#include "pipeline/simulation/SimulatedOrientation.h"

#include <cmath>
#include <numbers>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

/// The vector of a lattice with the given coordinates, of length 1.
Vector3 along(const Matrix3& basis, const Vector3& coordinates) {
    Vector3 sum{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            sum[j] += coordinates[i] * basis[i][j];
    if (!(dot(sum, sum) > 0))
        throw Failure("a direction along beam or axis has three indices that are not all zero",
                      FailureKind::Usage);
    return unit(sum);
}

/// What remains of a vector without its part along a unit vector.
Vector3 without(const Vector3& vector, const Vector3& part) {
    const double length = dot(vector, part);
    return {vector[0] - length * part[0], vector[1] - length * part[1], vector[2] - length * part[2]};
}

/// A random unit vector perpendicular to another one.
Vector3 randomPerpendicular(const Vector3& direction, SimulationRandom& random) {
    const Vector3 other = std::abs(direction[0]) < 0.7 ? Vector3{1, 0, 0} : Vector3{0, 1, 0};
    return rotationAbout(direction, random.uniform(0, 360)) * unit(cross(direction, other));
}

}  // namespace

Matrix3 orientationOf(const SimulatedCrystal& crystal, const OrientationSettings& settings,
                      std::uint64_t seed) {
    SimulationRandom random = randomFor(seed, RandomPurpose::Orientation);
    if (settings.matrix) return *settings.matrix;
    if (!settings.beamAlong && !settings.axisAlong) return randomRotation(random);

    Vector3 y{};
    Vector3 z{};
    if (settings.axisAlong) y = along(crystal.reciprocal(), *settings.axisAlong);
    if (settings.beamAlong) z = along(crystal.direct(), *settings.beamAlong);
    if (!settings.axisAlong) y = randomPerpendicular(z, random);
    if (!settings.beamAlong) z = randomPerpendicular(y, random);
    const Vector3 rest = without(y, z);
    if (dot(rest, rest) < 1e-6)
        throw Failure("the directions along the beam and along the axis are the same; choose another one",
                      FailureKind::Usage);
    y = unit(rest);
    SimulationRandom tilt = randomFor(seed, RandomPurpose::OffZone);
    const double azimuth = tilt.uniform(0, 2 * std::numbers::pi);
    return rotationAbout({std::cos(azimuth), std::sin(azimuth), 0}, settings.offZone) *
           Matrix3{cross(y, z), y, z};
}

}  // namespace vrk
