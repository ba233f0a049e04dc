/// \file
/// Peaks of frames that belong to one reflection, put together.
#pragma once

#include <vector>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// Distance, in voxels, within which peaks are one reflection that several neighbouring frames show; 0 when
/// the list does not look like that.
///
/// A spot stays in about the same place of the detector while the crystal turns, so that its peaks lie on a
/// short arc, perpendicular to the way from the origin, and far from those of other reflections. The
/// distances in the tree of shortest connections then have two groups with a gap between them. Close nodes
/// along a reciprocal axis have that gap, too; what they form are rows across the whole volume in one
/// direction.
///
/// \param points  relative to the origin of reciprocal space
double mergingDistance(const Points& points);

/// Replaces the peaks that are connected by steps of at most a distance by their mean, weighted with the
/// intensities, in the order in which their first ones stood.
/// \param weights  intensities in the order of the points; becomes the sums
void mergePeaks(Points& points, std::vector<double>& weights, double distance);

}  // namespace vrk
