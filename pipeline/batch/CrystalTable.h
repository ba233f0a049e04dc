/// \file
/// The crystals of a batch, a row each.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/batch/BatchFolder.h"
#include "pipeline/batch/JobRecord.h"
#include "pipeline/merging/CellClusters.h"
#include "pipeline/run/Calibration.h"

namespace vrk {

/// What a result says.
struct CrystalFacts {
    std::string confidence;            ///< "high", "fair" or "low"
    std::string lattice;               ///< the same, whatever an unknown ellipse does to the cell
    std::vector<std::string> reasons;  ///< why it is not higher
    std::string bravais;
    CrystalCell cell;  ///< conventional
    std::array<double, 6> sigma{};
    double volume = 0.0;  ///< cubic Angstrom
    int reflections = 0, indexed = 0;
    double residual = 0.0;      ///< voxels
    double resolution = 0.0;    ///< Angstrom
    double completeness = 0.0;  ///< of the intensities where there are some, otherwise of the nodes
    int handedness = 0;
    std::optional<double> dMin, iOverSigma, rMeas, ccHalf;
    std::string spaceGroup;      ///< the most likely; empty where there are no intensities
    double axis = 0.0;           ///< degrees, as refined
    double axisSigma = 0.0;      ///< degrees; 0: not known
    SeriesCalibration geometry;  ///< what was found of the instrument
    bool hadGeometry = false;    ///< it was run with --distortion: nothing was found
    double seconds = 0.0;
    double memory = 0.0;  ///< MiB
};

/// A series of the batch.
struct CrystalRow {
    std::string name;
    std::string series;  ///< path
    JobRecord record;
    std::optional<CrystalFacts> facts;  ///< with JobOutcome::Done
    int cluster = 0;                    ///< from 1; 0: none
    double fromMiddle = 0.0;            ///< strain to the middle of its cluster
    bool isOutlier = false;
};

/// Reads what the summary in a folder of `vrk run` says. Throws Failure when it is damaged or not there.
CrystalFacts readFacts(const std::filesystem::path& result);

/// The table as CSV. What differs between two runs of the same batch, times and memory, is not in it: the
/// same series with the same options give the same bytes.
std::string crystalsCsv(const std::vector<CrystalRow>& rows);

/// What differs: seconds, memory, attempts and hosts.
std::string costCsv(const std::vector<CrystalRow>& rows);

/// The table with clusters and dendrogram as JSON; the same bytes as well.
std::string crystalsJson(const std::vector<CrystalRow>& rows, const CellClustering& clustering, double cut);

}  // namespace vrk
