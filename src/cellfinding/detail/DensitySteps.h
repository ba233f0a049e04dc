/// \file
/// Clustering by steps of density, over bare coordinates.
#pragma once

#include <vector>

#include "cellfinding/ClusterPointDDSC.h"

namespace VRK::detail {

/// The thresholds of DDSC, which stand there.
struct DensityRules {
    double eps;
    int minPts;
    double k1, k2, k3, k4;
};

/// Labels, sizes and distances as DDSC gives them by asking a grid of cubes of this edge for one
/// neighbourhood after the other, when every point closer than eps (2 or 3 dimensions) is a neighbour.
///
/// Points are sorted into boxes as large as eps, so that the candidates of a neighbourhood are a few
/// stretches of memory. One loop over them counts what decides about a core point in nearly every case: how
/// many neighbours are denser, and how many of the cluster's density are free. Neighbours are sorted by
/// distance only where these numbers leave it open which of them are among the nearest.
///
/// \returns the number after that of the last cluster
int labelDensitySteps(const std::vector<ClusterPointDDSC<double>*>& points, int edge,
                      const DensityRules& rules);

}  // namespace VRK::detail
