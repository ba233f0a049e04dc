/// \file
/// The centres of the patterns from their spots and the lattice.
#pragma once

#include <Eigen/Core>
#include <span>
#include <vector>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// By how much the true centre of a pattern lies off the place that was taken for it, pixels.
struct CentreShift {
    double across = 0.0;      ///< along the radial direction, across the tilt axis
    double along = 0.0;       ///< along the tilt axis
    double sigma = 0.0;       ///< standard uncertainty of either; 0 without reflections
    int reflections = 0;      ///< that tell it
    bool applies = false;     ///< large against its uncertainty, and worth moving the pattern
    bool isFraction = false;  ///< the pattern sat a fraction of a base vector off
};

/// Compares the reflections of each pattern with the nodes of the lattice, in the plane of the pattern. A
/// shift of a pattern moves all of its spots alike: it is their median distance from the nodes. Where a
/// pattern's spots lie off the nodes of a lattice that fits the others, halves and thirds of base vectors are
/// tried, and the shortest that puts them on the nodes is taken.
///
/// \param positions  corrected for curvature and instrument, voxels; not finite where there is none
/// \param tilts      at which each was seen, radians
/// \param lattice    its origin has no part: 000 lies in the centre
/// \param centre     of the volume, voxels
/// \param patterns   tilts of the patterns, degrees, ascending
/// \returns one for each pattern
std::vector<CentreShift> refineCentres(std::span<const Eigen::Vector3d> positions,
                                       std::span<const double> tilts, const Lattice& lattice,
                                       const Eigen::Vector3d& centre, std::span<const double> patterns);

}  // namespace vrk
