/// \file
/// One reflection out of its spots in successive patterns.
#pragma once

#include "VRKCoreExport.h"
#include "reflections/ReflexVector.h"

/// A reflection passes the Ewald sphere over several patterns and is found in each of them.
class VRKCORE_EXPORT ReflexMerger2d {
public:
    /// Distance in pixels within which the spot of the next pattern belongs to the same reflection.
    static constexpr double kDefaultDistance = 1.5;

    /// Joins spots that lie in successive patterns at places no farther apart than the distance, the nearest
    /// ones first. Distances are measured within the pattern, so the outcome does not depend on the angle
    /// that the spots were turned by. A merged spot has the intensity-weighted mean place and tilt, the
    /// position that follows from them, the summed intensity and the largest peak height.
    ///
    /// \param spots  Reflex2d by ascending pattern, as FindReflexes2d lists them; others are left out
    /// \return a new list that the caller owns, in the order of each reflection's first spot; null for no
    /// list
    static ReflexVector* mergeReflexes(const ReflexVector* spots, double distance = kDefaultDistance);
};
