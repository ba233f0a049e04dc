#include "crystallography/VoxVTKMath.h"

#include <Eigen/Dense>

namespace {

Eigen::MatrixXd matrixOf(const double* const* rows, int m, int n) {
    Eigen::MatrixXd matrix(m, n);
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < n; ++j)
            matrix(i, j) = rows[i][j];
    return matrix;
}

Eigen::Matrix3d matrixOf(const double a[3][3]) {
    Eigen::Matrix3d matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = a[i][j];
    return matrix;
}

void copyOut(const Eigen::Matrix3d& matrix, double out[3][3]) {
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            out[i][j] = matrix(i, j);
}

}  // namespace

bool VoxVTKMath::JacobiN(const double* const* a, int n, double* w, double* const* v) {
    if (n < 1) return false;
    const Eigen::MatrixXd matrix = matrixOf(a, n, n);
    if (!matrix.allFinite()) return false;
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(matrix);
    if (solver.info() != Eigen::Success) return false;
    for (int k = 0; k < n; ++k) {
        // Eigen sorts in ascending order and leaves the sign of a vector open.
        Eigen::VectorXd vector = solver.eigenvectors().col(n - 1 - k);
        Eigen::Index largest = 0;
        vector.cwiseAbs().maxCoeff(&largest);
        if (vector[largest] < 0.0) vector = -vector;
        w[k] = solver.eigenvalues()[n - 1 - k];
        for (int i = 0; i < n; ++i)
            v[i][k] = vector[i];
    }
    return true;
}

bool VoxVTKMath::Jacobi(const double* const* a, double* w, double* const* v) {
    return JacobiN(a, 3, w, v);
}

bool VoxVTKMath::SingularValueDecomposition3x3(const double a[3][3], double u[3][3], double w[3],
                                               double vTransposed[3][3]) {
    const Eigen::Matrix3d matrix = matrixOf(a);
    if (!matrix.allFinite()) return false;
    const Eigen::JacobiSVD<Eigen::MatrixXd> svd(matrix, Eigen::ComputeFullU | Eigen::ComputeFullV);
    Eigen::Matrix3d left = svd.matrixU();
    Eigen::Matrix3d right = svd.matrixV();
    Eigen::Vector3d values = svd.singularValues();
    for (Eigen::Matrix3d* rotation : {&left, &right}) {
        if (rotation->determinant() > 0.0) continue;
        rotation->col(2) = -rotation->col(2);
        values[2] = -values[2];
    }
    copyOut(left, u);
    copyOut(right.transpose(), vTransposed);
    for (int k = 0; k < 3; ++k)
        w[k] = values[k];
    return true;
}

bool VoxVTKMath::SolveLinearSystem(const double* const* a, double* x, int n) {
    if (n < 1) return false;
    const Eigen::MatrixXd matrix = matrixOf(a, n, n);
    const Eigen::Map<Eigen::VectorXd> side(x, n);
    if (!matrix.allFinite() || !side.allFinite()) return false;
    const Eigen::FullPivLU<Eigen::MatrixXd> lu(matrix);
    if (!lu.isInvertible()) return false;
    const Eigen::VectorXd solution = lu.solve(side);
    Eigen::Map<Eigen::VectorXd>(x, n) = solution;
    return true;
}

bool VoxVTKMath::SolveLeastSquares(int m, int n, const double* const* a, const double* b, double* x) {
    if (n < 1 || m < n) return false;
    const Eigen::MatrixXd matrix = matrixOf(a, m, n);
    const Eigen::Map<const Eigen::VectorXd> side(b, m);
    if (!matrix.allFinite() || !side.allFinite()) return false;
    Eigen::Map<Eigen::VectorXd>(x, n) = matrix.completeOrthogonalDecomposition().solve(side);
    return true;
}

bool VoxVTKMath::InvertMatrix(const double* const* a, double* const* inverse, int n) {
    if (n < 1) return false;
    const Eigen::MatrixXd matrix = matrixOf(a, n, n);
    if (!matrix.allFinite()) return false;
    const Eigen::FullPivLU<Eigen::MatrixXd> lu(matrix);
    if (!lu.isInvertible()) return false;
    const Eigen::MatrixXd result = lu.inverse();
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            inverse[i][j] = result(i, j);
    return true;
}

double VoxVTKMath::Determinant3x3(const double a[3][3]) {
    return matrixOf(a).determinant();
}
