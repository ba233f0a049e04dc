#include "pipeline/base/SymmetricSystem.h"

#include <limits>
#include <opencv2/core.hpp>

namespace vrk {

SymmetricSystem::SymmetricSystem(const Eigen::MatrixXd& matrix) : m_factors(matrix) {}

Eigen::VectorXd SymmetricSystem::solve(const Eigen::VectorXd& right) const {
    return m_factors.solve(right);
}

Eigen::MatrixXd SymmetricSystem::inverse() const {
    return m_factors.solve(Eigen::MatrixXd::Identity(m_factors.rows(), m_factors.cols()));
}

double SymmetricSystem::smallestPivot() const {
    if (m_factors.info() != Eigen::Success) return std::numeric_limits<double>::quiet_NaN();
    return m_factors.vectorD().minCoeff();
}

Eigen::MatrixXd scaledInverse(const Eigen::MatrixXd& matrix) {
    const Eigen::VectorXd scale = matrix.diagonal().cwiseMax(1e-300).cwiseSqrt().cwiseInverse();
    const Eigen::MatrixXd scaled = scale.asDiagonal() * matrix * scale.asDiagonal();
    return scale.asDiagonal() * SymmetricSystem(scaled).inverse() * scale.asDiagonal();
}

double smallestEigenvalue(const Eigen::MatrixXd& matrix) {
    const auto n = static_cast<int>(matrix.rows());
    // Symmetric, so that it does not matter which index runs fastest.
    Eigen::MatrixXd copy = matrix;
    cv::Mat_<double> values;
    cv::eigen(cv::Mat_<double>(n, n, copy.data()), values);
    return values(n - 1);
}

Eigen::MatrixXd propagated(const Eigen::MatrixXd& derivatives, const Eigen::MatrixXd& covariance) {
    return derivatives * covariance * derivatives.transpose();
}

}  // namespace vrk
