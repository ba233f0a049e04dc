/// \file
/// Crystals of one cell in one data set.
#pragma once

#include <Eigen/Core>
#include <array>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/integration/DataReduction.h"
#include "pipeline/merging/CellClusters.h"
#include "pipeline/merging/ConsistentIndexing.h"
#include "pipeline/merging/CrystalData.h"
#include "pipeline/merging/CrystalScaling.h"

namespace vrk {

struct MergeOptions {
    double cellTolerance =
        0.03;               ///< strain up to which cells are one (CellClusterOptions::cut), at most 0.07
    bool leaveOut = false;  ///< leave crystals with other cells than most have out rather than refuse
    bool keepAll = false;   ///< keep crystals that spoil the data
    double dMin = 0;        ///< finest spacing, Angstrom; 0: the finest that a crystal has
    /// What the indices are to agree with, see readReferenceCrystal(); it is not merged.
    std::filesystem::path reference;
    /// Of an HKL file as reference: a, b, c, alpha, beta, gamma.
    std::optional<std::array<double, 6>> referenceCell;
};

/// What became of a crystal.
struct MergedCrystal {
    std::string name;
    CrystalCell cell;
    std::string bravais;
    bool used = false;
    std::string reason;     ///< why it is not used, or what to know of it; may be empty
    double fromMiddle = 0;  ///< strain of its lattice against that of the middle crystal
    CrystalIndexing indexing;
    CrystalScale scale;
    double deltaCcHalf = 0;  ///< when it was judged last (CrystalAgreement::delta)
    int observations = 0;
    int outliers = 0;  ///< of these
};

/// The data set of the first crystals of an order.
struct GrowthStep {
    std::size_t crystal = 0;  ///< that came in, a number in CrystalMerge::crystals
    double completeness = 0;
    double redundancy = 0;
    double ccHalf = 0;  ///< of halves of the crystals; 0 for one
};

struct CrystalMerge {
    std::vector<MergedCrystal> crystals;  ///< in the order given
    CellClustering cells;                 ///< of all of them
    std::size_t middle = 0;               ///< the crystal whose conventional base is the common one
    CrystalCell cell;                     ///< mean over the crystals used, under the ties of the middle one
    std::array<double, 6> cellSigma{};    ///< of the mean, by the scatter; 0 for what is tied
    std::string bravais;
    double kiloVolts = 0;
    double dMin = 0;
    double ccHalf = 0;  ///< of halves of the crystals used
    /// Observations of the crystals used, scaled; source is the number of the crystal, as is frame.
    DataReduction data;
    /// In each step the crystal that brings the most reflections that none before has.
    std::vector<GrowthStep> growth;
};

/// Puts the intensities of crystals of one cell on common indices and one scale:
///
/// - cells are clustered (clusterCells()); the largest cluster is the one that is merged;
/// - the Laue group is what the crystals' intensities say together (chooseLaueGroup() of each), and again
///   those of the data set;
/// - indices are made consistent (indexConsistently());
/// - each crystal has a scale and a relative B (scaleCrystals()), all have one error model;
/// - crystals without whose data the halves agree better are left out one after the other: those whose delta
///   CC1/2 is negative by more than 0.03 over the number of crystals and lower than those of the others,
///   seen without it, by more than four times their scatter;
/// - the rest is merged and judged as the data of a single crystal are.
///
/// Everything follows from the list and the options alone.
///
/// Throws Failure (Usage) when the cells are not one and the options do not allow for it, with the names of
/// those that differ; (NothingFound) when fewer than two crystals are left. Warnings of the session name the
/// crystals that are left out, and tell when halves of the crystals correlate by no more than 0.5, or pairs
/// by no more than 0.4 apart from the fall-off with resolution.
CrystalMerge mergeCrystals(std::span<const CrystalData> crystals, const MergeOptions& options,
                           Session& session);

}  // namespace vrk
