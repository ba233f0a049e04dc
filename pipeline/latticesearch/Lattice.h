/// \file
/// The reciprocal lattice of a crystal in the volume.
#pragma once

#include <Eigen/Core>
#include <array>
#include <string>
#include <vector>

#include "crystallography/UnitCell.h"

namespace vrk {

using Points = std::vector<Eigen::Vector3d>;
/// h, k, l
using Indices = std::array<int, 3>;

/// What stands in all three indices of a reflection that has none.
inline constexpr int kNotIndexed = 2147483647;

/// A primitive reciprocal lattice: base vectors as columns and the place of 000, in voxels of the volume, and
/// the length of a voxel. The one form in which the pipeline passes lattices on; a UnitCell is made of it
/// where the core library or a file wants one.
struct Lattice {
    Eigen::Matrix3d basis = Eigen::Matrix3d::Identity();
    Eigen::Vector3d origin = Eigen::Vector3d::Zero();
    double pixelSize = 0.0;  ///< 1/m per voxel; 0 is unknown

    double cellVolume() const;    ///< of the reciprocal cell, cubic voxels
    double shortestEdge() const;  ///< shortest of the base vectors, voxels
    /// Place of a node.
    Eigen::Vector3d node(const Indices& hkl) const;

    /// The reciprocal cell; with pixel size 1 when that is not known.
    UnitCell toUnitCell() const;
    /// \param cell  reciprocal
    static Lattice of(const UnitCell& cell, const Eigen::Vector3d& origin);
};

/// Distance of a point from its nearest node (nearest in fractional indices).
/// \param inverse  of the lattice's basis
double distanceToNode(const Eigen::Vector3d& point, const Lattice& lattice, const Eigen::Matrix3d& inverse);

/// The nodes around the origin of a lattice, by their indices.
struct NodeBox {
    double radius = 0.0;
    Indices most{};  ///< largest h, k, l of the nodes within the radius
};
/// Draws a radius in until the box of indices holds no more nodes than that. The volume of the cell does not
/// tell how many it holds where one edge is longer than the radius. \param inverse  of the lattice's basis;
/// the radius is 0 when it is not finite
NodeBox nodeBox(const Eigen::Matrix3d& inverse, double radius, double mostNodes);

/// The shortest three vectors that span the same lattice, right-handed.
Eigen::Matrix3d reduced(Eigen::Matrix3d basis);

/// The same lattice in the reciprocal base of the Niggli cell of its direct lattice, right-handed. Does not
/// depend on the pixel size.
Lattice niggliReduced(const Lattice& lattice);

/// The edges (Angstrom) and angles of the direct cell, reduced, as a reader wants them; empty without a pixel
/// size.
std::string cellText(Lattice lattice, double pixelSize);

/// Whether both bases, reduced, describe the same lattice within a share of the edge lengths.
bool sameLattice(const Eigen::Matrix3d& a, const Eigen::Matrix3d& b, double tolerance);

}  // namespace vrk
