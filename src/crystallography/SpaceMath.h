/// \file
/// What three base vectors say about a lattice, in either space.
#pragma once

#include "VRKCoreExport.h"

/// Edges of a cell and its angles in degrees: alpha between b and c, beta between a and c, gamma between a
/// and b.
struct SpaceDimensions {
    double a, b, c, alpha, beta, gamma;
};

/// Base vectors are the rows of a matrix: base[0] = a, base[1] = b, base[2] = c.
class VRKCORE_EXPORT SpaceMath {
public:
    static SpaceDimensions Dimensions(const double base[3][3]);
    static void MetricMatrix(const double base[3][3], double G[3][3]);
    /// Always positive, also for a left-handed base.
    static double Volume(const double base[3][3]);
    /// Cartesian components of v[0] a + v[1] b + v[2] c.
    static void Cartesian(const double base[3][3], const double v[3], double out[3]);
    /// The dot product of two vectors in crystal coordinates.
    static double Dot(const double base[3][3], const double u[3], const double v[3]);
    /// Their angle in degrees; NaN when one has no length.
    static double Angle(const double base[3][3], const double u[3], const double v[3]);
    /// The dual base, reciprocal[i] . base[j] = 1 for i = j and 0 otherwise (without a factor of 2 pi).
    /// False, with the output untouched, when the base vectors are coplanar or not finite.
    static bool DualBase(const double base[3][3], double dual[3][3]);
    /// A right-handed base with a along x and b in the plane of x and y. False, with the output untouched,
    /// for edges or angles that no cell has.
    static bool BaseVectors(const SpaceDimensions& dimensions, double base[3][3]);
};
