/// \file
/// Density clustering of bare coordinates.
#pragma once

#include <vector>

#include "cellfinding/ClusterPoint.h"

namespace VRK::detail {

/// The labels that growing clusters one by one, in the order of the list, gives when every point closer than
/// \p eps (2 or 3 dimensions) is a neighbour: 0 noise, clusters numbered by their first core point; a
/// border point has the smallest number among its core neighbours.
///
/// Boxes whose diagonal is just below eps make this fast (A. Gunawan, M. de Berg: A faster algorithm for
/// DBSCAN, Eindhoven 2013; J. Gan, Y. Tao: DBSCAN revisited, doi:10.1145/2723372.2737792): points that
/// share a box are neighbours, so a box with \p minPts points needs no distances to know that all are core,
/// and two boxes are joined by the first close pair of core points. The neighbours of other points are
/// counted by vector units in boxes as large as eps.
///
/// Empty when the bounds of the points span too many boxes of this size.
std::vector<int> densityLabels(const std::vector<ClusterPoint<double>*>& points, double eps, int minPts);

}  // namespace VRK::detail
