/// \file
/// Geometries as series have them, for the tests of the integration.
#pragma once

#include <Eigen/Geometry>
#include <Eigen/LU>

#include "pipeline/base/Angle.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "support/Testing.h"

namespace vrk::test {

/// A cell of the given type in random orientation, seen in frames of 256 x 256 pixels to 0.9 Angstrom.
inline SeriesGeometry randomGeometry(LATTICE::BravaisTypes type, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> unit(-1, 1);
    SeriesGeometry geometry;
    geometry.ties = type;
    const Eigen::Matrix3d direct = Eigen::Vector3d(8.2, 9.7, 11.9).asDiagonal();
    const Eigen::Quaterniond turn(unit(random), unit(random), unit(random), unit(random));
    Eigen::Matrix3d skewed = Eigen::Matrix3d::Identity();
    skewed(0, 2) = -0.2;
    skewed(0, 1) = 0.1;
    geometry.reciprocal = tiedVectors(turn.normalized() * (direct * skewed).inverse().transpose(), type);
    geometry.handedness = seed % 2 == 0 ? 1 : -1;
    geometry.pixelSize = 1 / (0.9 * 124);
    geometry.axisAngle = unit(random);
    geometry.axisPitch = 0.02 * unit(random);
    geometry.distortion = {0.01 * unit(random), 0.01 * unit(random), 0.01 * unit(random),
                           0.01 * unit(random)};
    for (int tilt = -50; tilt <= 50; ++tilt)
        geometry.frames.push_back(
            {tilt * kDegree, kDegree, 127.5 + 2 * unit(random), 127.5 + 2 * unit(random)});
    return geometry;
}

}  // namespace vrk::test
