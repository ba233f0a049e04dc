#include "pipeline/base/NormalEquations.h"

namespace vrk {

NormalEquations::NormalEquations(Eigen::Index size)
    : m_lower(Eigen::MatrixXd::Zero(size, size)), m_right(Eigen::VectorXd::Zero(size)), m_weighted(size, 3) {}

// Plain loops: products made for large matrices take several times as long for three columns.
void NormalEquations::add(const Derivatives& derivatives, const Eigen::Vector3d& deviation, double weight) {
    m_weighted = weight * derivatives;
    const Eigen::Index size = m_right.size();
    const double* const x = m_weighted.data();
    const double* const y = x + size;
    const double* const z = y + size;
    for (Eigen::Index column = 0; column < size; ++column) {
        const Eigen::Vector3d d = derivatives.row(column);
        double* const sums = &m_lower(0, column);
        for (Eigen::Index row = column; row < size; ++row)
            sums[row] = sums[row] + x[row] * d[0] + y[row] * d[1] + z[row] * d[2];
        m_right(column) =
            m_right(column) + deviation[0] * x[column] + deviation[1] * y[column] + deviation[2] * z[column];
    }
}

}  // namespace vrk
