/// \file
/// The Laue group of a set of intensities.
#pragma once

#include <Eigen/Core>
#include <array>
#include <span>
#include <string>
#include <vector>

#include "pipeline/integration/Observation.h"

namespace vrk {

/// A rotation that takes h, k, l (as a column) to equivalent indices.
struct IndexRotation {
    std::array<std::array<int, 3>, 3> matrix{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

    Indices operator()(const Indices& hkl) const;
    bool operator==(const IndexRotation&) const = default;
    auto operator<=>(const IndexRotation&) const = default;  // NOLINT(modernize-use-nullptr)
};

Eigen::Matrix3d matrixOf(const IndexRotation& rotation);

/// The rotations of a Laue group; the inversion belongs to all of them and is not listed.
using LaueRotations = std::vector<IndexRotation>;

/// The rotations (the identity first) that leave a lattice as it is.
/// \param reciprocal  columns of the conventional cell, tied
LaueRotations latticeRotations(const Eigen::Matrix3d& reciprocal, char centring);

/// One of the equivalent indices, the same for all of them: the largest one.
Indices representative(const Indices& hkl, const LaueRotations& rotations);

/// How well the intensities that a rotation calls equal are correlated.
struct RotationEvidence {
    IndexRotation rotation;
    double correlation = 0;  ///< weighted, of intensities divided by their mean at the resolution
    int pairs = 0;
};

/// A Laue group that the lattice allows.
struct LaueCandidate {
    std::string symbol;     ///< of the space group without translations, in the axes of the cell: "P 1 2/m 1"
    std::string laueClass;  ///< "2/m"
    LaueRotations rotations;
    double evidence = 0;     ///< logarithm of its likelihood, relative to the best
    double correlation = 0;  ///< mean of its rotations, the identity left out; 0 for -1
    double rMeas = 0;        ///< redundancy-independent R of the equivalents
    int unique = 0;          ///< unique reflections
};

struct LaueChoice {
    std::vector<LaueCandidate> candidates;    ///< the best first
    std::vector<RotationEvidence> rotations;  ///< of the lattice
    double friedelCorrelation = 0;            ///< of Friedel mates, or what their uncertainties let expect

    const LaueCandidate& best() const { return candidates.front(); }
};

/// Judges every subgroup of the lattice's rotations that has a name in these axes, and the trivial one.
///
/// As in P. R. Evans, Acta Cryst. D 62 (2006) 72, doi:10.1107/S0907444905036693: the correlation of each
/// rotation is either about that of the crystal's other rotations (a Lorentzian) or, when the rotation is not
/// one of the crystal, low (an exponential); a group has the first likelihood for its own rotations and the
/// second for all others. The crystal's rotations may be correlated less than Friedel mates are, which costs
/// evidence. \param observations  unmerged; outliers are left out
LaueChoice chooseLaueGroup(std::span<const Observation> observations, const Eigen::Matrix3d& reciprocal,
                           char centring);

}  // namespace vrk
