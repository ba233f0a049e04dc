/// \file
/// The sums of least squares over points in space.
#pragma once

#include <Eigen/Core>

namespace vrk {

/// Normal equations of observations that have three coordinates each: matrix = sum of w R Rᵀ, right = sum of
/// w R d.
class NormalEquations {
public:
    /// Derivatives of the three coordinates, one column each, one row a parameter.
    using Derivatives = Eigen::Matrix<double, Eigen::Dynamic, 3>;

    /// \param size  number of parameters
    explicit NormalEquations(Eigen::Index size);

    /// \param derivatives  R, of what is expected
    /// \param deviation  d, observed less expected
    /// \param weight  w
    void add(const Derivatives& derivatives, const Eigen::Vector3d& deviation, double weight);

    /// Both halves.
    Eigen::MatrixXd matrix() const { return m_lower.selfadjointView<Eigen::Lower>(); }
    const Eigen::VectorXd& right() const { return m_right; }

private:
    Eigen::MatrixXd m_lower;  ///< what is above the diagonal is not summed
    Eigen::VectorXd m_right;
    Derivatives m_weighted;
};

}  // namespace vrk
