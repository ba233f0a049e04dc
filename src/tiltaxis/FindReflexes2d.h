/// \file
/// The search for reflections in the single patterns of a tilt series.
#pragma once

#include "VRKCoreExport.h"
#include "foundation/VoxProgressObserver.h"
#include "reflections/ReflexVector.h"

class VoxMRCData;

/// Finds the spots of every pattern: groups of pixels that stand out from their surroundings.
///
/// The pattern is smoothed by a Gaussian of one pixel. In cells of about 32 pixels its median and its noise
/// (median absolute deviation) are taken, and interpolated between the cells; a spot is a connected group
/// (edges or corners) of at least three pixels which are six standard deviations of the noise, and at least
/// one count, above that median. Its position is the centre of gravity of what stands out, its intensity the
/// sum. Spots within a twentieth of the frame's width of its centre belong to the direct beam and are left
/// out, and so are groups of more than 400 pixels, which are no spots.
///
/// The thresholds follow the pattern, so weak and bright series give the same spots.
class VRKCORE_EXPORT FindReflexes2d : public VoxProgressObservable {
public:
    /// \param series  preprocessed: beam in the middle of the frame, background removed; x fastest
    /// \return a new list of Reflex2d by pattern; the caller owns it (ReflexVectorPtr). Null, with an error
    ///         in the log, when there is no series; null when the progress observer asks to stop.
    ReflexVector* findAllReflexes(const VoxMRCData* series);
};
