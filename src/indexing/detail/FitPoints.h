/// \file
/// Between reflection lists and cells on one side and the arrays of the fit on the other.
#pragma once

#include <Eigen/Core>
#include <vector>

#include "crystallography/BravaisTypes.h"
#include "indexing/CellRefinement.h"
#include "indexing/detail/LatticeFit.h"

class ReflexVector;
class UnitCell;

namespace VRK::detail {

/// Positions of all reflections in list order; an empty place of the list gives NaN.
/// \param centerType  1, 2, 3 as in Reflex::getCenter(axis, type); any other value takes getCenter(axis)
std::vector<FitPoint> gatherPoints(const ReflexVector& reflections, int centerType);

/// Writes h, k, l into the list.
void assignIndices(ReflexVector& reflections, const std::vector<Indices>& indices);

/// The ties of a Bravais type between the parameters of its conventional cell, which is the fitted direct
/// cell times the matrix.
CellTies tiesOf(LATTICE::BravaisTypes type, const double toConventional[3][3]);

/// Copies a matrix to the conventional cell; null gives the unit matrix.
void copyMatrix(const double from[3][3], double to[3][3]);

/// Why a refinement cannot start; null when it can.
const char* obstacle(const UnitCell* cell, const double* origin, double tolerance, const CellTies& ties);

/// Why a fit that is not valid found nothing.
inline constexpr const char* kNoFit =
    "fewer than six reflections, or only ones in a plane, lie near the nodes of the cell's lattice. Check "
    "the cell "
    "and the origin, or allow a larger tolerance.";

/// The fit in the terms of the public classes.
CellRefinement::Result describe(const LatticeFit& fit, const CellTies& ties, double pixelSize);

/// The lattice of a reciprocal cell, and its place.
Lattice latticeFrom(const UnitCell& cell, const double origin[3]);

/// Gives a cell the refined vectors, its other properties stay, and the origin its refined place.
void storeLattice(const CellRefinement::Result& result, UnitCell& cell, double origin[3]);

}  // namespace VRK::detail
