/// \file
/// Reflection lists of made-up crystals.
#pragma once

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace made {

using Eigen::Matrix3d;
using Eigen::Vector3d;

struct Crystal {
    const char* name;
    Matrix3d basis;         ///< primitive, reciprocal, voxels; columns
    double seen = 0.5;      ///< share of the reflections outside the missing wedge
    double noise = 0.35;    ///< of each coordinate, voxels
    double outliers = 0.4;  ///< share of the list
    double reach = 80.0;    ///< voxels
    double touching = 0.0;  ///< reflections of a row closer than this, in voxels, are found as one
};

/// Columns are a*, b*, c* of a lattice with these edges in voxels and angles in degrees.
inline Matrix3d cell(double a, double b, double c, double alpha = 90, double beta = 90, double gamma = 90) {
    const double degree = std::acos(-1.0) / 180.0;
    const double ca = std::cos(alpha * degree), cb = std::cos(beta * degree), cg = std::cos(gamma * degree);
    const double sg = std::sin(gamma * degree);
    const double y = (ca - cb * cg) / sg;
    Matrix3d columns;
    columns << a, b * cg, c * cb, 0, b * sg, c * y, 0, 0, c * std::sqrt(1 - cb * cb - y * y);
    return columns;
}

/// The reflections about the origin in a random orientation, behind a missing wedge of 60 degrees; \p basis
/// is turned with them.
inline std::vector<Vector3d> reflections(Crystal& crystal, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<> unit(0.0, 1.0);
    std::normal_distribution<> normal;
    const Eigen::Quaterniond turn(normal(random), normal(random), normal(random), normal(random));
    crystal.basis = turn.normalized().toRotationMatrix() * crystal.basis;
    const Matrix3d inverse = crystal.basis.inverse();
    const auto hidden = [](const Vector3d& p) { return std::abs(p[2]) > 1.73 * std::abs(p[0]); };
    Eigen::Array3i most;
    for (int i = 0; i < 3; ++i)
        most[i] = static_cast<int>(crystal.reach * inverse.row(i).norm());
    std::vector<Vector3d> points;
    for (int h = -most[0]; h <= most[0]; ++h)
        for (int k = -most[1]; k <= most[1]; ++k) {
            Vector3d sum = Vector3d::Zero();
            Vector3d last = Vector3d::Constant(1e9);
            double count = 0.0;
            const auto flush = [&] {
                if (count > 0.0) points.push_back(sum / count);
                sum.setZero();
                count = 0.0;
            };
            for (int l = -most[2]; l <= most[2]; ++l) {
                const Vector3d node = crystal.basis * Vector3d(h, k, l);
                const double r = node.norm();
                if (r > crystal.reach || r < 4.0 || hidden(node) || unit(random) > crystal.seen) continue;
                const Vector3d p =
                    node + crystal.noise * Vector3d(normal(random), normal(random), normal(random));
                if ((p - last).norm() > crystal.touching) flush();
                sum += p;
                count += 1.0;
                last = p;
            }
            flush();
        }
    auto wrong = static_cast<std::size_t>(crystal.outliers / (1.0 - crystal.outliers) *
                                          static_cast<double>(points.size()));
    while (wrong > 0) {
        const Vector3d p =
            crystal.reach * Vector3d(2 * unit(random) - 1, 2 * unit(random) - 1, 2 * unit(random) - 1);
        if (p.norm() > crystal.reach || hidden(p)) continue;
        points.push_back(p);
        --wrong;
    }
    return points;
}

/// Whether three vectors (columns) span the lattice, each within \p tolerance voxels of its node.
inline bool spans(const Matrix3d& lattice, const Matrix3d& vectors, double tolerance) {
    const Matrix3d indices = (lattice.inverse() * vectors).array().round();
    return std::abs(std::abs(indices.determinant()) - 1.0) < 0.5 &&
           (lattice * indices - vectors).colwise().norm().maxCoeff() < tolerance;
}

}  // namespace made
