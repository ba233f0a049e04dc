/// \file
/// Between reflection lists and cells on one side and the arrays of the fit on the other.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "crystallography/BravaisTypes.h"
#include "indexing/CellRefinement.h"
#include "indexing/LatticeFitInternal.h"

class ReflexVector;

namespace VRK::detail {

/// Positions of all reflections in list order; an empty place of the list gives NaN.
/// \param centerType  1, 2, 3 as in Reflex::getCenter(axis, type); any other value takes getCenter(axis)
std::vector<FitPoint> gatherPoints(const ReflexVector& reflections, int centerType);

/// Writes h, k, l into the list.
void assignIndices(ReflexVector& reflections, const std::vector<Indices>& indices);

/// The ties of a Bravais type between the parameters of its conventional cell.
CellTies tiesOf(LATTICE::BravaisTypes type, const Eigen::Matrix3d& toConventional);

/// The fit in the terms of the public classes.
CellRefinement::Result describe(const LatticeFit& fit, const CellTies& ties, double pixelSize);

/// A lattice whose basis has the vectors v[0], v[1], v[2].
Lattice latticeFrom(const double vectors[3][3], const double origin[3]);

}  // namespace VRK::detail
