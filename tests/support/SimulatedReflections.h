/// \file
/// Reflections of a known lattice, for tests of indexing and refinement.
#pragma once

#include <Eigen/Geometry>

#include "crystallography/UnitCell.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

using Vec3 = std::array<double, 3>;
using Mat3 = std::array<Vec3, 3>;  ///< three vectors

inline Vec3 nodeOf(const Mat3& basis, double h, double k, double l) {
    Vec3 node;
    for (std::size_t i = 0; i < 3; ++i)
        node[i] = h * basis[0][i] + k * basis[1][i] + l * basis[2][i];
    return node;
}

/// A direct cell (a, b, c in Angstrom, angles in degrees) in a random but fixed orientation.
inline UnitCell directCellOf(const std::array<double, 6>& cell, unsigned seed, double pixelSize) {
    const double degree = std::acos(-1.0) / 180.0;
    const double ca = std::cos(cell[3] * degree), cb = std::cos(cell[4] * degree);
    const double cg = std::cos(cell[5] * degree), sg = std::sin(cell[5] * degree);
    const double cy = (ca - cb * cg) / sg;
    Eigen::Matrix3d upright;
    upright << 1.0, cg, cb, 0.0, sg, cy, 0.0, 0.0, std::sqrt(1.0 - cb * cb - cy * cy);
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    Eigen::Vector4d q;
    for (double& component : q)
        component = normal(random);
    const Eigen::Matrix3d vectors = Eigen::Quaterniond(q[0], q[1], q[2], q[3]).normalized() * upright *
                                    Eigen::Vector3d(cell[0], cell[1], cell[2]).asDiagonal();
    return UnitCell(vectors.col(0).data(), vectors.col(1).data(), vectors.col(2).data(), pixelSize, true,
                    true, LATTICE::aP);
}

/// The reciprocal vectors, in voxels, of a direct cell.
inline Mat3 reciprocalVectors(UnitCell direct) {
    const std::unique_ptr<UnitCell> reciprocal(direct.getReciprocalCell());
    Mat3 basis;
    reciprocal->getBase(basis[0].data(), basis[1].data(), basis[2].data());
    return basis;
}

inline UnitCell reciprocalCell(const Mat3& basis, double pixelSize = 1e10) {
    return UnitCell(basis[0].data(), basis[1].data(), basis[2].data(), pixelSize, false, true, LATTICE::aP);
}

/// That a cell is another one, within a part of its edges and so many degrees.
inline void expectCell(const std::array<double, 6>& cell, const std::array<double, 6>& truth, double part,
                       double degrees) {
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(cell[i], truth[i], i < 3 ? part * truth[i] : degrees) << "parameter " << i;
}

/// Calls back for every node but 000 within a radius of the origin.
inline void forEachNode(const Mat3& basis, double radius,
                        const std::function<void(int, int, int, const Vec3&)>& use) {
    double shortest = radius;
    for (const Vec3& vector : basis)
        shortest = std::min(shortest, std::hypot(vector[0], vector[1], vector[2]));
    const int most = static_cast<int>(std::ceil(2.0 * radius / shortest)) + 1;
    forEachIndex(most, most, most, [&](int h, int k, int l) {
        const Vec3 node = nodeOf(basis, h, k, l);
        if ((h || k || l) && std::hypot(node[0], node[1], node[2]) <= radius) use(h, k, l, node);
    });
}
