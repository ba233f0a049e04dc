#include "pipeline/base/SmallMatrices.h"

#include <Eigen/Eigenvalues>
#include <Eigen/LU>
#include <Eigen/SVD>

namespace vrk {
namespace {

using Eigen::Matrix3d;

Eigen::JacobiSVD<Matrix3d> singularValues(const Matrix3d& matrix) {
    return Eigen::JacobiSVD<Matrix3d>(matrix, Eigen::ComputeFullU | Eigen::ComputeFullV);
}

}  // namespace

PrincipalAxes principalAxes(const Matrix3d& moments) {
    const Eigen::SelfAdjointEigenSolver<Matrix3d> solver(moments);
    return {solver.eigenvalues(), solver.eigenvectors()};
}

Matrix3d nearestOrthogonal(const Matrix3d& matrix) {
    const Eigen::JacobiSVD<Matrix3d> svd = singularValues(matrix);
    return svd.matrixU() * svd.matrixV().transpose();
}

Matrix3d nearestRotation(const Matrix3d& matrix) {
    const Eigen::JacobiSVD<Matrix3d> svd = singularValues(matrix);
    Matrix3d signs = Matrix3d::Identity();
    signs(2, 2) = (svd.matrixU() * svd.matrixV().transpose()).determinant() < 0 ? -1 : 1;
    return svd.matrixU() * signs * svd.matrixV().transpose();
}

}  // namespace vrk
