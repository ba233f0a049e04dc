/// \file
/// Geometry of lattice planes (hkl).
#pragma once

#include "VRKCoreExport.h"

class Space;

/// Vectors are in reciprocal crystal coordinates: h a* + k b* + l c*.
class VRKCORE_EXPORT ReciprocalSpaceMath {
public:
    static double Dot(const Space& space, const double hkl1[3], const double hkl2[3]);
    /// In 1/Angstrom.
    static double Length(const Space& space, const double hkl[3]);
    /// The spacing of the planes in Angstrom; infinite for (000).
    static double Spacing(const Space& space, const double hkl[3]);
    /// The angle between the normals in degrees; NaN when a vector has no length.
    static double Angle(const Space& space, const double hkl1[3], const double hkl2[3]);
    /// Cartesian components in the frame of the base vectors.
    static void Cartesian(const Space& space, const double hkl[3], double out[3]);
};
