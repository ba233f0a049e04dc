/// \file
/// From spots in patterns to positions in reciprocal space.
#pragma once

#include "VRKCoreExport.h"
#include "reflections/ReflexVector.h"

/// Operations on lists of Reflex2d. Elements of other kinds are left out.
class VRKCORE_EXPORT ReflectionTransformation {
public:
    /// Turns spots about the pattern's centre so that a tilt axis of the given angle comes to lie along v, as
    /// VoxMRCstemProcessing::step3_Rotation2TiltAxis() turns patterns.
    /// \return a new list that the caller owns; null for no list
    static ReflexVector* rotate2DReflectionsInImagePlane(const ReflexVector* spots, double angleDegrees);

    /// Gives every spot its position in reciprocal space relative to the origin, in pixels: (u cos a, v,
    /// u sin a) for a spot of the tilt a, the tilt axis lying along v (docs/conventions.md, volume frame).
    static void transformTo3DPositions(ReflexVector* spots);
};
