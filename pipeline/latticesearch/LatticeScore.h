/// \file
/// How well a reciprocal lattice explains a set of points, against what chance would explain.
#pragma once

#include <Eigen/Dense>
#include <span>
#include <vector>

namespace vrk {

/// A reciprocal lattice in voxels: base vectors as columns, and the place of 000.
struct Lattice {
    Eigen::Matrix3d basis = Eigen::Matrix3d::Identity();
    Eigen::Vector3d origin = Eigen::Vector3d::Zero();

    double cellVolume() const { return std::abs(basis.determinant()); }
    double shortestEdge() const { return basis.colwise().norm().minCoeff(); }
};

using Points = std::vector<Eigen::Vector3d>;

/// The evidence for a lattice.
struct LatticeScore {
    int points = 0;         ///< how many were looked at
    int indexed = 0;        ///< how many lie within the radius of a node
    double radius = 0.0;    ///< voxels; the one at which the evidence is strongest
    double chance = 0.0;    ///< share of the points that would lie there by chance
    double evidence = 0.0;  ///< logarithm of the likelihood ratio against chance, in nats
    double fraction() const { return points > 0 ? static_cast<double>(indexed) / points : 0.0; }
};

/// Counts the points within a radius of a node. By chance the share of the sphere in the cell of the
/// lattice would lie there, so that a lattice with nodes everywhere earns nothing. Several radii are tried,
/// from sharp to blurred, and the one with the strongest evidence counts.
LatticeScore scoreLattice(std::span<const Eigen::Vector3d> points, const Lattice& lattice);

/// n (f ln(f / c) + (1 - f) ln((1 - f) / (1 - c))) for f > c, else 0: the evidence of k out of n successes
/// against a chance of c each.
double evidenceOf(int successes, int trials, double chance);

/// Distance of a point from its nearest node (nearest in fractional indices).
double distanceToNode(const Eigen::Vector3d& point, const Lattice& lattice, const Eigen::Matrix3d& inverse);

/// Fits base vectors and origin to the points within the radius of a node, working outwards from the origin
/// so that the indices of far points are never guessed from a coarse start. Returns the start where the
/// points do not determine a lattice.
Lattice fitLattice(std::span<const Eigen::Vector3d> points, const Lattice& start, double radius);

/// The shortest three vectors that span the same lattice, right-handed.
Eigen::Matrix3d reduced(Eigen::Matrix3d basis);

/// Whether both bases, reduced, describe the same lattice within a share of the edge lengths.
bool sameLattice(const Eigen::Matrix3d& a, const Eigen::Matrix3d& b, double tolerance);

/// Replaces a lattice by its sub- or superlattice of index 2 or 3 as often as the points ask for it: nodes
/// that only chance populates go, nodes that the points left over populate significantly come. Odd orders of
/// a superstructure are often weak, so the points that the plain lattice leaves over are judged alone.
Lattice settleMultiples(std::span<const Eigen::Vector3d> points, Lattice lattice);

}  // namespace vrk
