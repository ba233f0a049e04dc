/// \file
/// A lattice whose conventional cell obeys the ties of a Bravais type.
#pragma once

#include <Eigen/Core>
#include <array>

#include "crystallography/BravaisTypes.h"

namespace vrk {

/// a*, b*, c* and the origin as columns, voxels.
using Matrix34 = Eigen::Matrix<double, 3, 4>;
using Matrix12 = Eigen::Matrix<double, 12, 12>;
using Vector7 = Eigen::Matrix<double, 7, 1>;

/// Which of the six parameters of the direct cell are tied. Lengths with equal numbers in `length` are to
/// each other as their `ratio`; an angle of 0 is free, any other value fixed in degrees.
struct CellTies {
    std::array<int, 3> length = {0, 1, 2};
    std::array<double, 3> ratio = {1.0, 1.0, 1.0};
    std::array<double, 3> angle = {0.0, 0.0, 0.0};
    /// The conventional direct cell, to which the ties apply, is the fitted direct cell times this matrix.
    Eigen::Matrix3d toConventional = Eigen::Matrix3d::Identity();
    bool any = false;

    /// The ties of a Bravais type (monoclinic: b unique; hP and hR: hexagonal axes). NoBravaisType and aP tie
    /// nothing.
    static CellTies of(LATTICE::BravaisTypes type, const Eigen::Matrix3d& toConventional);
    /// Those of a cell that is known but for its scale: a, b, c in any unit, angles in degrees.
    static CellTies ofShape(const std::array<double, 6>& cell, const Eigen::Matrix3d& toConventional);
};

/// A lattice as a function of few numbers: the free lengths, the free angles (degrees), a rotation vector and
/// the origin. Without ties these are twelve.
class TiedLattice {
public:
    /// The tied lattice near a start.
    TiedLattice(const CellTies& ties, const Matrix34& start);

    Eigen::Index size() const { return m_values.size(); }
    Matrix34 model() const { return modelAt(m_values); }
    /// Of the twelve numbers of the model, column after column, by those of this class.
    Eigen::Matrix<double, 12, Eigen::Dynamic> derivatives() const;
    /// Moves by a step and makes the new orientation the reference of the next.
    void move(const Eigen::VectorXd& step);

private:
    void setCell(const Vector7& cell);
    Eigen::Matrix3d reciprocalOf(const Eigen::VectorXd& values) const;
    Matrix34 modelAt(const Eigen::VectorXd& values) const;

    CellTies m_ties;
    int m_lengths = 0;
    int m_angles = 0;
    Eigen::VectorXd m_values;
    Eigen::Matrix3d m_rotation = Eigen::Matrix3d::Identity();
};

/// a, b, c, alpha, beta, gamma (degrees) and volume of the direct cell of a reciprocal basis, lengths in the
/// inverse of the basis' unit.
Vector7 directCellAndVolume(const Eigen::Matrix3d& reciprocalBasis);

/// The twelve numbers of a model, column after column.
Eigen::Matrix<double, 12, 1> flattened(const Matrix34& model);

}  // namespace vrk
