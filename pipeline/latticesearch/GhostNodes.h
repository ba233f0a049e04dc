/// \file
/// Reflections between the nodes of a lattice that faults of the centring make up.
#pragma once

#include <Eigen/Core>
#include <span>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// Whether reflections between the nodes of a lattice are ghosts of those on the nodes. A pattern whose
/// centre is wrong by a part of a base vector shows all its reflections there. What belongs to the crystal is
/// seen at all tilts, in more than one layer, and beside the reflections of the nodes. Ghosts
///
/// - lie within a narrow range of tilts that holds few of the others, or
/// - lie in one layer of nodes through the origin that holds few of the others, or
/// - lie at tilts at which the nodes of the lattice are missing.
///
/// \param between  reflections off the nodes that a finer lattice would explain
/// \param on       reflections on the nodes
bool areGhosts(std::span<const Eigen::Vector3d> between, std::span<const Eigen::Vector3d> on,
               const Lattice& lattice);

}  // namespace vrk
