#include "crystallography/VoxVTKMath.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/core.hpp>

namespace {

using Matrix = cv::Mat_<double>;

Matrix matrixOf(const double* const* rows, int m, int n) {
    Matrix matrix(m, n);
    for (int i = 0; i < m; ++i)
        std::copy_n(rows[i], n, matrix[i]);
    return matrix;
}

Matrix matrixOf(const double a[3][3]) {
    const double* rows[3] = {a[0], a[1], a[2]};
    return matrixOf(rows, 3, 3);
}

bool allFinite(const double* values, int count) {
    return std::all_of(values, values + count, [](double value) { return std::isfinite(value); });
}

bool allFinite(const Matrix& matrix) {
    return std::all_of(matrix.begin(), matrix.end(), [](double value) { return std::isfinite(value); });
}

/// A = U diag(w) V^T of m >= n rows, the values largest first.
struct SingularValues {
    Matrix w, u, vt;

    explicit SingularValues(const Matrix& a) { cv::SVD::compute(a, w, u, vt); }

    /// Values that are more than rounding.
    int rank(int m) const {
        const double least = m * std::numeric_limits<double>::epsilon() * w(0);
        return static_cast<int>(
            std::count_if(w.begin(), w.end(), [=](double value) { return value > least; }));
    }
    /// The shortest x of least |A x - b|.
    Matrix solve(const Matrix& b) const {
        Matrix along, x = Matrix(cv::Size(b.cols, vt.cols), 0.0);
        const int used = rank(b.rows);
        if (used == 0) return x;
        cv::gemm(u.colRange(0, used), b, 1.0, cv::noArray(), 0.0, along, cv::GEMM_1_T);
        for (int i = 0; i < used; ++i)
            along.row(i) *= 1.0 / w(i);
        cv::gemm(vt.rowRange(0, used), along, 1.0, cv::noArray(), 0.0, x, cv::GEMM_1_T);
        return x;
    }
};

/// Of a value that is none but for rounding, the column may point anywhere: it is made perpendicular to those
/// before.
void orthonormalize(Matrix& u) {
    const auto rest = [&u](Matrix column, int before) {
        for (int k = 0; k < before; ++k)
            column -= u.col(k).dot(column) * u.col(k);
        return column;
    };
    for (int i = 0; i < 3; ++i) {
        Matrix best = rest(u.col(i).clone(), i);
        for (int axis = 0; axis < 3 && !(cv::norm(best) > 0.5); ++axis)
            best = rest(Matrix(Matrix::eye(3, 3)).col(axis).clone(), i);
        best.copyTo(u.col(i));
        u.col(i) *= 1.0 / cv::norm(best);
    }
}

}  // namespace

bool VoxVTKMath::JacobiN(const double* const* a, int n, double* w, double* const* v) {
    if (n < 1) return false;
    const Matrix matrix = matrixOf(a, n, n);
    if (!allFinite(matrix)) return false;
    Matrix values, vectors;
    if (!cv::eigen(matrix, values, vectors)) return false;
    for (int k = 0; k < n; ++k) {
        // The sign of a vector is left open.
        const double* vector = vectors[k];
        const double largest = *std::max_element(
            vector, vector + n, [](double x, double y) { return std::abs(x) < std::abs(y); });
        w[k] = values(k);
        for (int i = 0; i < n; ++i)
            v[i][k] = largest < 0.0 ? -vector[i] : vector[i];
    }
    return true;
}

bool VoxVTKMath::Jacobi(const double* const* a, double* w, double* const* v) {
    return JacobiN(a, 3, w, v);
}

bool VoxVTKMath::SingularValueDecomposition3x3(const double a[3][3], double u[3][3], double w[3],
                                               double vTransposed[3][3]) {
    const Matrix matrix = matrixOf(a);
    if (!allFinite(matrix)) return false;
    SingularValues values(matrix);
    if (!(std::abs(cv::determinant(values.u)) > 0.999999)) orthonormalize(values.u);
    if (cv::determinant(values.u) < 0) {
        values.u.col(2) *= -1;
        values.w(2) *= -1;
    }
    if (cv::determinant(values.vt) < 0) {
        values.vt.row(2) *= -1;
        values.w(2) *= -1;
    }
    for (int i = 0; i < 3; ++i) {
        std::copy_n(values.u[i], 3, u[i]);
        std::copy_n(values.vt[i], 3, vTransposed[i]);
        w[i] = values.w(i);
    }
    return true;
}

bool VoxVTKMath::SolveLinearSystem(const double* const* a, double* x, int n) {
    if (n < 1) return false;
    const Matrix matrix = matrixOf(a, n, n);
    if (!allFinite(matrix) || !allFinite(x, n)) return false;
    const SingularValues values(matrix);
    if (values.rank(n) < n) return false;
    const Matrix solution = values.solve(Matrix(n, 1, x).clone());
    std::copy(solution.begin(), solution.end(), x);
    return true;
}

bool VoxVTKMath::SolveLeastSquares(int m, int n, const double* const* a, const double* b, double* x) {
    if (n < 1 || m < n) return false;
    const Matrix matrix = matrixOf(a, m, n);
    if (!allFinite(matrix) || !allFinite(b, m)) return false;
    Matrix side(m, 1);
    std::copy_n(b, m, side.begin());
    const Matrix solution = SingularValues(matrix).solve(side);
    std::copy(solution.begin(), solution.end(), x);
    return true;
}

bool VoxVTKMath::InvertMatrix(const double* const* a, double* const* inverse, int n) {
    if (n < 1) return false;
    const Matrix matrix = matrixOf(a, n, n);
    if (!allFinite(matrix)) return false;
    const SingularValues values(matrix);
    if (values.rank(n) < n) return false;
    Matrix unit(cv::Size(n, n), 0.0);
    cv::setIdentity(unit);
    const Matrix result = values.solve(unit);
    for (int i = 0; i < n; ++i)
        std::copy_n(result[i], n, inverse[i]);
    return true;
}

double VoxVTKMath::Determinant3x3(const double a[3][3]) {
    return a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
           a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
           a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
}
