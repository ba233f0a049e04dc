/// \file
/// Vectors of three and matrices of three by three, and the conversion of angles.
#pragma once

#include <cmath>

#include "VRKCoreExport.h"

/// Matrices are row-major: M[row][column]. Output arrays may be the input arrays where not said otherwise.
class VRKCORE_EXPORT BasicMath {
public:
    static constexpr double kDegreePerRadian = 57.29577951308232;

    static double Dot(const double u[3], const double v[3]) {
        return u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
    }

    static void Cross(const double u[3], const double v[3], double out[3]) {
        const double x = u[1] * v[2] - u[2] * v[1];
        const double y = u[2] * v[0] - u[0] * v[2];
        const double z = u[0] * v[1] - u[1] * v[0];
        out[0] = x;
        out[1] = y;
        out[2] = z;
    }

    /// Euclidean length.
    static double Norm(const double v[3]) { return std::sqrt(Dot(v, v)); }

    static double Determinant(const double M[3][3]) { return Determinant(M[0], M[1], M[2]); }

    /// The triple product u . (v x w): the determinant of the matrix with these rows (or these columns).
    static double Determinant(const double u[3], const double v[3], const double w[3]) {
        double vw[3];
        Cross(v, w, vw);
        return Dot(u, vw);
    }

    /// out = L R.
    static void MatrixProduct(const double L[3][3], const double R[3][3], double out[3][3]);

    /// out = M v.
    static void MatrixProduct(const double M[3][3], const double v[3], double out[3]);

    /// out = the inverse of M. False, with out untouched, when M is singular: an entry is not finite, a row
    /// is zero, or the determinant is below 1e-12 of the product of the lengths of the rows (rows that are
    /// coplanar within rounding). The scale of M does not matter.
    static bool Invert(const double M[3][3], double out[3][3]);

    /// The angle between u and v in radians, 0 to pi: the arc cosine of the normalised dot product, so angles
    /// below 1e-7 have no meaning. Rounding cannot take parallel vectors out of the range; NaN when a vector
    /// has no length.
    static double CalcAngleBetweenAandB(const double u[3], const double v[3]);

    static constexpr double ConvertAngleFromRadianToDegree(double radian) {
        return radian * kDegreePerRadian;
    }
    static constexpr double ConvertAngleFromDegreeToRadian(double degree) {
        return degree / kDegreePerRadian;
    }

    /// The nearest whole number; halves go away from zero, so that round(-x) = -round(x) and the indices of
    /// a Friedel pair stay opposite. NaN and infinity come back as they are.
    static double round(double x) { return std::round(x); }
};
