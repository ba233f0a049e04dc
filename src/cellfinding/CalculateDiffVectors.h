/// \file
/// The vectors between pairs of reflections.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/Parameter.h"
#include "reflections/ReflexVector.h"

/// Lattice vectors recur among the differences between reflections and pile up in clusters there.
class VRKCORE_EXPORT CalculateDiffVectors {
public:
    /// The differences d = c_j - c_i of all pairs i < j (i outer, j inner) of reflection centres with
    /// minLength < |d| < maxLength, as unclassified three-dimensional points. The parameters give the two
    /// lengths, in voxels, and the kind of centre.
    ///
    /// With \p halfSpace one vector of each pair is kept, the one whose first coordinate that is not 0 is
    /// positive; without it d is followed by -d.
    ///
    /// \p min and \p max (three values, x first) are widened to the bounds of the vectors, so the caller
    /// gives them start values; with either of them null no bounds are kept. Reflections whose position is
    /// not a number have no differences.
    ///
    /// The caller owns list and points. Null when there are no reflections (or a null argument), an empty
    /// list when no pair passes. Pairs out of reach are skipped without being formed, so the time follows
    /// the number of vectors as long as maxLength is small against the extent of the reflections.
    static std::vector<ClusterPoint<double>*>* calculateDiffVectors(ReflexVector* reflexes,
                                                                    Parameter* parameter, double* min,
                                                                    double* max, bool halfSpace);

private:
    static void add(std::vector<ClusterPoint<double>*>* out, double minLength, double maxLength,
                    const double* vec, double* min, double* max);
};
