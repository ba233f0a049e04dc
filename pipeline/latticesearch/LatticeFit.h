/// \file
/// The fit of a lattice to points: indexing, robust least squares, ties between cell parameters, covariance.
#pragma once

#include <Eigen/Core>
#include <array>
#include <span>
#include <vector>

#include "pipeline/latticesearch/Lattice.h"
#include "pipeline/latticesearch/TiedLattice.h"

namespace vrk {

/// A reflection's place and its weight, the inverse of its variance relative to an ordinary reflection's.
/// A weight of 0 takes a reflection out of the fit; it is indexed all the same.
struct FitPoint {
    Eigen::Vector3d position;
    double weight = 1.0;
};

/// Ordinary reflections at these places.
std::vector<FitPoint> fitPointsAt(std::span<const Eigen::Vector3d> positions);

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

/// Plain least squares of base vectors and origin on the points within a radius (voxels) of a node, working
/// outwards from the origin so that the indices of far points are never guessed from a coarse start. Fast,
/// for the search. Returns the start where the points do not determine a lattice.
Lattice fitWithin(std::span<const Eigen::Vector3d> points, const Lattice& start, double radius);

/// A fitted lattice in the terms of crystallography.
///
/// Uncertainties are those of an M-estimate (P. J. Huber, Robust Statistics, Wiley 1981, chapter 7.6, DOI
/// 10.1002/0471725250), propagated to the direct cell. They describe scatter, not a wrong scale: an error of
/// the camera length is not in them.
struct RefinedLattice {
    Lattice lattice;              ///< reciprocal, primitive
    Eigen::Vector3d originSigma;  ///< standard uncertainties, voxels
    std::array<double, 6>
        cell{};  ///< conventional direct cell: a, b, c (Angstrom), alpha, beta, gamma (degrees)
    std::array<double, 6> cellSigma{};  ///< standard uncertainties; 0 for what the ties fix
    double volume = 0.0;                ///< of the conventional cell, cubic Angstrom
    double volumeSigma = 0.0;           ///< standard uncertainty
    double sigma = 0.0;   ///< robust standard deviation of one coordinate of a reflection, voxels
    double rms = 0.0;     ///< root mean square displacement of the indexed reflections, voxels
    int reflections = 0;  ///< all reflections of the list
    int indexed = 0;      ///< those within the tolerance of a node
    int rounds = 0;       ///< rounds of indexing and fitting
    bool stable = false;  ///< false when the indices still changed after the last round

    /// The share of the list that lies near a node.
    double fraction() const { return reflections > 0 ? static_cast<double>(indexed) / reflections : 0.0; }
};

/// Lengths in 1/voxel where the lattice has no pixel size.
RefinedLattice describe(const LatticeFit& fit, const CellTies& ties);

}  // namespace vrk
