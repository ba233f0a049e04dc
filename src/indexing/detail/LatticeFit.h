/// \file
/// The numerical core of the cell refinement on plain arrays: indexing, robust least squares, ties between
/// cell parameters, covariance.
#pragma once

#include <Eigen/Core>
#include <array>
#include <span>
#include <vector>

namespace VRK::detail {

using Matrix12 = Eigen::Matrix<double, 12, 12>;
using Indices = std::array<int, 3>;

/// What stands in an index that could not be given.
constexpr int kNotIndexed = 2147483647;

/// A lattice: three base vectors as columns and the node 000, all in voxels.
struct Lattice {
    Eigen::Matrix3d basis = Eigen::Matrix3d::Identity();
    Eigen::Vector3d origin = Eigen::Vector3d::Zero();
};

/// A reflection's place and its weight, the inverse of its variance relative to an ordinary reflection's.
/// A weight of 0 takes a reflection out of the fit; it is indexed all the same.
struct FitPoint {
    Eigen::Vector3d position;
    double weight = 1.0;
};

/// Which of the six parameters of the direct cell are tied. Equal numbers in `length` mean equal lengths;
/// an angle of 0 is free, any other value fixed in degrees.
struct CellTies {
    std::array<int, 3> length = {0, 1, 2};
    std::array<double, 3> angle = {0.0, 0.0, 0.0};
    /// The conventional direct cell, to which the ties apply, is the fitted direct cell times this matrix.
    Eigen::Matrix3d toConventional = Eigen::Matrix3d::Identity();
    bool any = false;
};

struct LatticeFit {
    bool valid = false;
    Lattice lattice;
    Matrix12 covariance = Matrix12::Zero();  ///< of a*, b*, c*, origin, in this order
    std::vector<Indices> indices;            ///< one for each point
    int indexed = 0;
    double sigma = 0.0;  ///< robust standard deviation of one coordinate, in voxels
    double rms = 0.0;    ///< root mean square length of the displacements of indexed points, in voxels
    int rounds = 0;
    bool stable = false;
};

/// The integers nearest to the fractional indices, or kNotIndexed in all three when one lies farther than
/// `tolerance` from its integer, is not finite or does not fit an int.
Indices indexPosition(const Eigen::Vector3d& fractional, double tolerance);

/// Indexes all points. \returns how many indices changed.
int indexPoints(std::span<const FitPoint> points, const Lattice& lattice, double tolerance,
                std::vector<Indices>& indices);

/// Refines the lattice from a start, re-indexing until nothing changes. First the points near the origin
/// take part, then wider and wider ones, so that a start that is off by a fraction of a percent does not
/// misindex the far ones; where starting with all points indexes more of them, that answer is taken.
LatticeFit fitLattice(std::span<const FitPoint> points, const Lattice& start, double tolerance,
                      const CellTies& ties);

/// The lattice that fits points with given indices best. \returns false when they do not determine one.
bool fitIndexed(std::span<const FitPoint> points, const std::vector<Indices>& indices, Lattice& lattice);

/// a, b, c, alpha, beta, gamma (degrees) and volume of the direct cell of a reciprocal basis, lengths in the
/// inverse of the basis' unit.
Eigen::Matrix<double, 7, 1> directCell(const Eigen::Matrix3d& reciprocalBasis);

/// Standard deviations of directCell(basis * toReciprocalConventional) from the covariance of the basis.
Eigen::Matrix<double, 7, 1> directCellDeviations(const Eigen::Matrix3d& basis,
                                                 const Eigen::Matrix3d& toReciprocalConventional,
                                                 const Matrix12& covariance);

}  // namespace VRK::detail
