/// \file
/// The lattice of a second crystal, in the reflections that the first one leaves over.
#pragma once

#include <Eigen/Core>
#include <optional>
#include <span>
#include <vector>

#include "pipeline/latticesearch/CellSearch.h"

namespace vrk {

/// Further crystals are looked for where more than this share of the points is on no lattice.
inline constexpr double kUnexplained = 0.1;

/// A lattice that is not one of those known before.
struct FurtherLattice {
    LatticeCandidate candidate;
    bool sameCell = false;  ///< that of the first lattice, in another orientation
};

/// Orientations in which a lattice explains points, the best first; each with at least a few points.
///
/// Two points whose distances from the origin and angle are those of two nodes fix a rotation; small turns,
/// as between the parts of a crystal that is split, are tried on a grid as well. What is returned was fitted
/// to the points.
std::vector<Lattice> orientationsOf(const Lattice& lattice, std::span<const Eigen::Vector3d> points);

/// The smallest rotation from one lattice to another one of about the same metric, over all bases that fit,
/// degrees; nothing when the metrics differ.
std::optional<double> turnBetween(const Eigen::Matrix3d& from, const Eigen::Matrix3d& to);

/// Whether two lattices, or one and a part of the other down to a sixth, lie on each other: what looks
/// like another crystal is then a superlattice or a fault of the centring.
bool areCommensurate(const Eigen::Matrix3d& a, const Eigen::Matrix3d& b);

/// Of a crystal in two parts that are turned by few degrees against each other, a lattice fits something in
/// between. \returns the lattice of one part, where that has far more points close to its nodes
/// \param points  relative to the origin of reciprocal space
std::optional<Lattice> partOfSplit(const Lattice& average, std::span<const Eigen::Vector3d> points);

/// Whether a rough lattice is about a refined one.
bool areAlike(const Eigen::Matrix3d& rough, const Eigen::Matrix3d& refined);

/// Looks for the cell of the first lattice in a new orientation, then for any lattice; the same cell is taken
/// unless another one explains much more.
///
/// \param points   that the known lattices do not explain, relative to the origin of reciprocal space
/// \param weights  intensities in the same order
/// \param known    at least one
/// \param search   for other cells; null for the cell of the first lattice alone
/// \returns nothing when no lattice explains enough of the points, or only one that lies on a known one
std::optional<FurtherLattice> findFurtherLattice(const Points& points, const std::vector<double>& weights,
                                                 std::span<const Lattice> known, const CellSearch* search);

}  // namespace vrk
