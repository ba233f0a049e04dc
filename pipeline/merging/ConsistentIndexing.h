/// \file
/// The same indices for the same reflections of all crystals.
#pragma once

#include <Eigen/Core>
#include <span>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/integration/LaueGroup.h"
#include "pipeline/merging/CrystalData.h"

namespace vrk {

/// How a crystal is indexed as the others are.
struct CrystalIndexing {
    Eigen::Matrix3d base =
        Eigen::Matrix3d::Identity();  ///< the common base in the crystal's conventional one
    double strain = 0;                ///< of its lattice against the common one
    int ways = 0;            ///< that its lattice allows and the Laue group tells apart; 0: it does not fit
    double correlation = 0;  ///< with all others, mean over their common reflections
    double runnerUp = 0;     ///< in the best of the other ways; 0 when there is none
    int common = 0;          ///< reflections with at least one other crystal, counted by pairs of crystals
};

/// Where the lattice is more symmetric than the Laue group, or nearly is, a crystal can be indexed in several
/// ways that its spots alone do not tell apart. The ways are all bases in which its lattice is the common
/// one, taken as one where the Laue group makes them equivalent. Which is right is seen by the correlation of
/// the intensities: the sum of the correlations of all pairs of crystals, each times their common
/// reflections, is made as large as possible by giving one crystal after the other the way that fits the rest
/// best, until nothing changes; from several starts, as W. Brehm and K. Diederichs, Acta Cryst. D 70 (2014)
/// 101, doi:10.1107/S1399004713025431, propose (their second algorithm). Intensities are divided by their
/// mean at the resolution. With more than 150 crystals each is compared with that many of the others.
/// \param common      the lattice in whose conventional base all are indexed
/// \param first       the crystal that keeps its closest way; where groups of crystals share no reflections,
///                    only that is certain
/// \param laue        rotations in the common base
/// \param mostStrain  beyond which a way is none, 0.07 at most
std::vector<CrystalIndexing> indexConsistently(std::span<const CrystalData> crystals,
                                               const ReducedCell& common, std::size_t first,
                                               const LaueRotations& laue, double mostStrain,
                                               const Session& session);

}  // namespace vrk
