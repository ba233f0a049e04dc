/// \file
/// Products of vectors given in crystal coordinates (fractions of three base vectors).
#pragma once

#include "VRKCoreExport.h"

class VRKCORE_EXPORT CrystallographyMath {
public:
    /// G[i][j] = the dot product of base vectors i and j.
    static void MetricMatrix(const double a[3], const double b[3], const double c[3], double G[3][3]);

    /// u . v = u^T G v of two vectors in crystal coordinates.
    static double CrystallDot(const double u[3], const double v[3], const double G[3][3]);
    static double CrystallDot(const double u[3], const double v[3], const double a[3], const double b[3],
                              const double c[3]);

    /// The cross product of two vectors in crystal coordinates. The result stands in the Cartesian frame of
    /// the base vectors, where it also exists for coplanar base vectors.
    static void CrystallCross(const double u[3], const double v[3], const double a[3], const double b[3],
                              const double c[3], double out[3]);
};
