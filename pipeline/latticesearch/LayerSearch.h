/// \file
/// The vector of a lattice along which its nodes are so close that difference vectors do not tell it.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk {

/// Nodes of a lattice lie in layers parallel to any two of its vectors. When the layers are so close that
/// reflections of neighbouring ones touch, difference vectors no longer tell their distance, but the
/// positions along the normal still have a sharp period. It is found as a maximum of the Fourier sum over
/// all points, and so are the shifts of one layer against the next along both vectors.
///
/// \param points  relative to the origin, voxels
/// \param a,b     the known vectors
/// \returns bases of a, b and a third vector, one for each of the strongest periods; empty when the points
///          have none
std::vector<Eigen::Matrix3d> basesFromLayers(const Points& points, const Eigen::Vector3d& a,
                                             const Eigen::Vector3d& b);

/// The same for a lattice whose rows are known, but not the distance of the nodes along them: the third
/// vector has the right direction, and the other two are right but for a part along it. Every row has a sharp
/// period along its direction, and the phases of the rows tell the missing parts.
///
/// \param third  which vector of the lattice has the direction of the rows
std::vector<Eigen::Matrix3d> basesFromRows(const Points& points, const Lattice& lattice, int third);

}  // namespace vrk
