/// \file
/// Small numerical routines on plain arrays: eigenvalues, singular values, linear systems. The work is done
/// by Eigen and OpenCV; these functions only fix shapes, orders and failure results.
#pragma once

#include "VRKCoreExport.h"

/// Matrices are arrays of row pointers, m[row][column]; the caller owns all arrays. Values that are not
/// finite make every routine return false with its outputs untouched.
class VRKCORE_EXPORT VoxVTKMath {
public:
    /// Eigenvalues and eigenvectors of a symmetric n x n matrix (its lower triangle is read).
    /// \param w  n eigenvalues, largest first
    /// \param v  n x n, column k is the unit eigenvector of w[k], its largest component positive
    /// \returns false when n < 1 or the matrix has values that are not finite
    static bool JacobiN(const double* const* a, int n, double* w, double* const* v);
    /// The same for 3 x 3.
    static bool Jacobi(const double* const* a, double* w, double* const* v);

    /// A = U diag(w) V^T of a 3 x 3 matrix with rotations U and V: the singular values come largest first
    /// and the last one carries the sign of det A.
    static bool SingularValueDecomposition3x3(const double a[3][3], double u[3][3], double w[3],
                                              double vTransposed[3][3]);

    /// Solves A x = b for a square n x n system.
    /// \param x  the right-hand side on entry, the solution on return; untouched on failure
    /// \returns false when A is singular to working precision
    static bool SolveLinearSystem(const double* const* a, double* x, int n);

    /// The x that minimises |A x - b| for m >= n rows; the shortest such x when columns depend on each other.
    /// \param a  m x n   \param b  m values   \param x  n values
    static bool SolveLeastSquares(int m, int n, const double* const* a, const double* b, double* x);

    /// The inverse of a square n x n matrix.
    /// \returns false when the matrix is singular to working precision
    static bool InvertMatrix(const double* const* a, double* const* inverse, int n);

    /// Determinant of a 3 x 3 matrix.
    static double Determinant3x3(const double a[3][3]);
};
