/// \file
/// What is known of one crystal of many: its cell and its intensities.
#pragma once

#include <Eigen/Core>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/integration/Observation.h"
#include "pipeline/merging/ReducedCell.h"

namespace vrk {

struct CrystalData {
    std::string name;     ///< the folder, with ", crystal 2" and so on for further crystals of a series
    CrystalCell cell;     ///< conventional, under the ties of its type
    std::string bravais;  ///< "mP"
    double kiloVolts = 0;
    double dMin = 0;  ///< finest spacing with information, Angstrom
    /// Scaled over the frames, not merged, with the uncertainties of the series' own error model; indices and
    /// spacings in the crystal's conventional cell.
    std::vector<Observation> observations;
};

/// The crystals in a folder of `vrk run` that have intensities measured on the frames: summary.json for cells
/// and reflections.csv for intensities. Throws Failure that names the file and what it lacks.
std::vector<CrystalData> readCrystals(const std::filesystem::path& folder);

/// The crystals of several folders. A warning names the folders that have no such intensities.
std::vector<CrystalData> readCrystals(std::span<const std::filesystem::path> folders, Session& session);

/// A crystal's observations with the indices of another base; spacings stay. Reflections that the other base
/// has no whole indices for are left out.
/// \param base  vectors as columns, in the crystal's conventional base (ReducedCell::Match::base)
std::vector<Observation> reindexed(const std::vector<Observation>& observations, const Eigen::Matrix3d& base);

}  // namespace vrk
