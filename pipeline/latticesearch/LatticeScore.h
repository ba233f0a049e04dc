/// \file
/// How well a reciprocal lattice explains a set of points, against what chance would explain.
#pragma once

#include <Eigen/Core>
#include <span>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

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

/// Replaces a lattice by its sub- or superlattice of index 2 or 3 as often as the points ask for it: nodes
/// that only chance populates go, nodes that the points left over populate significantly come. Odd orders of
/// a superstructure are often weak, so the points that the plain lattice leaves over are judged alone.
Lattice settleMultiples(std::span<const Eigen::Vector3d> points, Lattice lattice);

}  // namespace vrk
