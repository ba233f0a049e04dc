/// \file
/// Geometry of lattice directions [uvw].
#pragma once

#include "VRKCoreExport.h"

class Space;

/// Vectors are in crystal coordinates: u a + v b + w c.
class VRKCORE_EXPORT RealSpaceMath {
public:
    static double Dot(const Space& space, const double uvw1[3], const double uvw2[3]);
    /// In Angstrom.
    static double Length(const Space& space, const double uvw[3]);
    /// In degrees; NaN when a vector has no length.
    static double Angle(const Space& space, const double uvw1[3], const double uvw2[3]);
    /// Cartesian components in the frame of the base vectors.
    static void Cartesian(const Space& space, const double uvw[3], double out[3]);
};
