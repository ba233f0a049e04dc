/// \file
/// Normal equations, solved in one place: the decompositions are templates that take the compiler long.
#pragma once

#include <Eigen/Cholesky>
#include <Eigen/Core>

namespace vrk {

/// Linear equations with a symmetric, positive semidefinite matrix, such as the normal matrix of a fit.
class SymmetricSystem {
public:
    /// \param matrix  n x n; the lower triangle is read
    explicit SymmetricSystem(const Eigen::MatrixXd& matrix);

    /// \param right  n numbers
    Eigen::VectorXd solve(const Eigen::VectorXd& right) const;
    /// The covariance that belongs to a normal matrix.
    Eigen::MatrixXd inverse() const;
    /// The smallest of the pivots of the elimination: near 0 where the equations determine less than n
    /// numbers; not a number when there is no elimination.
    double smallestPivot() const;

private:
    Eigen::LDLT<Eigen::MatrixXd> m_factors;
};

/// The inverse of a symmetric matrix whose rows and columns are brought to one scale first, so that
/// parameters in different units do not cost digits.
Eigen::MatrixXd scaledInverse(const Eigen::MatrixXd& matrix);

/// \param matrix  symmetric
double smallestEigenvalue(const Eigen::MatrixXd& matrix);

/// D C Dᵀ: the covariance of quantities that depend on parameters with covariance C.
/// \param derivatives  D, one row a quantity, one column a parameter
Eigen::MatrixXd propagated(const Eigen::MatrixXd& derivatives, const Eigen::MatrixXd& covariance);

}  // namespace vrk
