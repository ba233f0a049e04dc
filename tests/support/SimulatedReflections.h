/// \file
/// Reflections of a known lattice, for tests of indexing and refinement.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <random>

#include "crystallography/UnitCell.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"
#include "support/Indices.h"

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
    const Mat3 upright = {{{cell[0], 0.0, 0.0},
                           {cell[1] * cg, cell[1] * sg, 0.0},
                           {cell[2] * cb, cell[2] * cy, cell[2] * std::sqrt(1.0 - cb * cb - cy * cy)}}};
    // A rotation from a random unit quaternion.
    std::mt19937 random(seed);
    std::normal_distribution<double> normal;
    double q[4];
    double norm = 0.0;
    for (double& component : q) {
        component = normal(random);
        norm += component * component;
    }
    for (double& component : q)
        component /= std::sqrt(norm);
    const auto [w, x, y, z] = q;
    const Mat3 rotation = {{{1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)},
                            {2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)},
                            {2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)}}};
    Mat3 turned{};
    for (std::size_t v = 0; v < 3; ++v)
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 3; ++j)
                turned[v][i] += rotation[i][j] * upright[v][j];
    return UnitCell(turned[0].data(), turned[1].data(), turned[2].data(), pixelSize, true, true, LATTICE::aP);
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
