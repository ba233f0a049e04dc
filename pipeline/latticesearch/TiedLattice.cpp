#include "pipeline/latticesearch/TiedLattice.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>

#include "pipeline/base/Angle.h"
#include "pipeline/base/SmallMatrices.h"

namespace vrk {
namespace {

/// Base vectors of the direct cell as columns: a along x, b in the xy plane.
Eigen::Matrix3d directBasis(const std::array<double, 6>& cell) {
    const auto& [a, b, c, alpha, beta, gamma] = cell;
    const double ca = std::cos(alpha * kDegree), cb = std::cos(beta * kDegree),
                 cg = std::cos(gamma * kDegree);
    const double sg = std::sin(gamma * kDegree);
    const double cy = (ca - cb * cg) / sg;
    Eigen::Matrix3d basis;
    basis << a, b * cg, c * cb, 0, b * sg, c * cy, 0, 0,
        c * std::sqrt(std::max(1.0 - cb * cb - cy * cy, 0.0));
    return basis;
}

Eigen::Matrix3d rotation(const Eigen::Vector3d& turn) {
    const double angle = turn.norm();
    if (angle == 0.0) return Eigen::Matrix3d::Identity();
    return Eigen::AngleAxisd(angle, turn / angle).toRotationMatrix();
}

}  // namespace

Vector7 directCellAndVolume(const Eigen::Matrix3d& reciprocalBasis) {
    const Eigen::Matrix3d g = (reciprocalBasis.transpose() * reciprocalBasis).inverse();
    const Eigen::Vector3d length = g.diagonal().cwiseSqrt();
    const auto angle = [&](int i, int j) {
        return std::acos(std::clamp(g(i, j) / (length(i) * length(j)), -1.0, 1.0)) / kDegree;
    };
    Vector7 cell;
    cell << length, angle(1, 2), angle(0, 2), angle(0, 1), 1.0 / std::abs(reciprocalBasis.determinant());
    return cell;
}

Eigen::Matrix<double, 12, 1> flattened(const Matrix34& model) {
    return Eigen::Map<const Eigen::Matrix<double, 12, 1>>(model.data());
}

CellTies CellTies::of(LATTICE::BravaisTypes type, const Eigen::Matrix3d& toConventional) {
    CellTies ties;
    ties.toConventional = toConventional;
    ties.any = true;
    switch (type) {
        case LATTICE::cP:
        case LATTICE::cI:
        case LATTICE::cF:
            ties.length = {0, 0, 0};
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case LATTICE::tP:
        case LATTICE::tI:
            ties.length = {0, 0, 1};
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case LATTICE::hP:
        case LATTICE::hR:
            ties.length = {0, 0, 1};
            ties.angle = {90.0, 90.0, 120.0};
            break;
        case LATTICE::oP:
        case LATTICE::oI:
        case LATTICE::oC:
        case LATTICE::oF:
            ties.angle = {90.0, 90.0, 90.0};
            break;
        case LATTICE::mP:
        case LATTICE::mC:
            ties.angle = {90.0, 0.0, 90.0};
            break;
        default:
            ties.any = false;
    }
    return ties;
}

CellTies CellTies::ofShape(const std::array<double, 6>& cell, const Eigen::Matrix3d& toConventional) {
    CellTies ties;
    ties.length = {0, 0, 0};
    ties.ratio = {1.0, cell[1] / cell[0], cell[2] / cell[0]};
    ties.angle = {cell[3], cell[4], cell[5]};
    ties.toConventional = toConventional;
    ties.any = true;
    return ties;
}

TiedLattice::TiedLattice(const CellTies& ties, const Matrix34& start) : m_ties(ties) {
    const Eigen::Matrix3d conventional = start.leftCols<3>() * ties.toConventional.inverse().transpose();
    setCell(directCellAndVolume(conventional));
    // The rotation (or rotoinversion) that brings the tied cell closest to the start.
    const Eigen::Matrix3d tied = reciprocalOf(m_values);
    m_rotation = nearestOrthogonal(conventional * tied.inverse());
    m_values.tail<3>() = start.col(3);
}

Eigen::Matrix<double, 12, Eigen::Dynamic> TiedLattice::derivatives() const {
    Eigen::Matrix<double, 12, Eigen::Dynamic> result(12, size());
    for (Eigen::Index i = 0; i < size(); ++i) {
        const double step = 1e-5 * std::max(std::abs(m_values(i)), i < m_lengths ? 1e-12 : 1.0);
        Eigen::VectorXd up = m_values, down = m_values;
        up(i) += step;
        down(i) -= step;
        result.col(i) = (flattened(modelAt(up)) - flattened(modelAt(down))) / (2.0 * step);
    }
    return result;
}

void TiedLattice::move(const Eigen::VectorXd& step) {
    m_values += step;
    const Eigen::Vector3d turn = m_values.segment<3>(m_lengths + m_angles);
    m_rotation = rotation(turn) * m_rotation;
    m_values.segment<3>(m_lengths + m_angles).setZero();
}

void TiedLattice::setCell(const Vector7& cell) {
    m_lengths = *std::max_element(m_ties.length.begin(), m_ties.length.end()) + 1;
    m_angles = static_cast<int>(std::count(m_ties.angle.begin(), m_ties.angle.end(), 0.0));
    m_values = Eigen::VectorXd::Zero(m_lengths + m_angles + 6);
    std::array<double, 3> count = {0, 0, 0};
    for (std::size_t i = 0; i < 3; ++i) {
        const int group = m_ties.length[i];
        m_values(group) += cell(static_cast<Eigen::Index>(i)) / m_ties.ratio[i];
        count[static_cast<std::size_t>(group)] += 1.0;
    }
    for (int group = 0; group < m_lengths; ++group)
        m_values(group) /= count[static_cast<std::size_t>(group)];
    int next = m_lengths;
    for (std::size_t i = 0; i < 3; ++i)
        if (m_ties.angle[i] == 0.0) m_values(next++) = cell(static_cast<Eigen::Index>(i) + 3);
}

Eigen::Matrix3d TiedLattice::reciprocalOf(const Eigen::VectorXd& values) const {
    std::array<double, 6> cell{};
    int next = m_lengths;
    for (std::size_t i = 0; i < 3; ++i) {
        cell[i] = values(m_ties.length[i]) * m_ties.ratio[i];
        cell[i + 3] = m_ties.angle[i] == 0.0 ? values(next++) : m_ties.angle[i];
    }
    return directBasis(cell).inverse().transpose();
}

Matrix34 TiedLattice::modelAt(const Eigen::VectorXd& values) const {
    const Eigen::Vector3d turn = values.segment<3>(m_lengths + m_angles);
    Matrix34 m;
    m.leftCols<3>() = rotation(turn) * m_rotation * reciprocalOf(values) * m_ties.toConventional.transpose();
    m.col(3) = values.tail<3>();
    return m;
}

}  // namespace vrk
