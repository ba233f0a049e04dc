/// \file
/// Points on the nodes of a lattice, for tests of the search for it.
#pragma once

#include <Eigen/Geometry>

#include "pipeline/latticesearch/Lattice.h"
#include "support/Testing.h"

/// Which nodes a list holds and how far off.
struct Seen {
    double nearest, farthest;  ///< distances from the origin, voxels
    double noise;              ///< of each coordinate, voxels
    bool wedge = true;         ///< nothing beyond tilts of 60 degrees
};

/// \param share  of the nodes h, k, l that are seen
template <typename Share>
vrk::Points seenNodes(const Eigen::Matrix3d& basis, const Seen& seen, std::mt19937& random,
                      const Share& share) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, seen.noise);
    const Eigen::Array3d most = seen.farthest * basis.inverse().rowwise().norm();
    vrk::Points points;
    forEachIndex(
        static_cast<int>(most[0]), static_cast<int>(most[1]), static_cast<int>(most[2]),
        [&](int h, int k, int l) {
            const Eigen::Vector3d p = basis * Eigen::Vector3d(h, k, l);
            if (p.norm() > seen.farthest || p.norm() < seen.nearest) return;
            if ((seen.wedge && std::abs(p.z()) > 1.7 * std::abs(p.x())) || unit(random) > share(h, k, l))
                return;
            points.push_back(p + Eigen::Vector3d(noise(random), noise(random), noise(random)));
        });
    return points;
}
