/// \file
/// The reflections of a result as a table of commas: what other programs plot, and what the report shows.
#pragma once

#include <Eigen/Core>
#include <filesystem>
#include <iosfwd>
#include <span>
#include <vector>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// A reflection that was seen in the volume, measured on the frames, or both.
struct ListedReflection {
    Indices hkl{};    ///< in the conventional cell of its crystal; 0 0 0 where it has none
    int crystal = 0;  ///< 1: the first, 2 ...: further ones, 0: on the nodes of none
    /// From the origin of reciprocal space in the volume frame, corrected for the curvature of the Ewald
    /// sphere, 1/Angstrom. That of the node for a reflection that was not seen in the volume.
    Eigen::Vector3d place = Eigen::Vector3d::Zero();
    double spacing = 0;    ///< d, Angstrom
    double tilt = 0;       ///< at which it was seen, degrees
    int frame = 0;         ///< nearest to that tilt, from 1
    double column = 0;     ///< where that frame shows it, pixels from the middle of the first one
    double row = 0;        ///< downwards
    double counts = 0;     ///< sum over its voxels; 0: not seen in the volume
    double intensity = 0;  ///< measured on the frames, scaled
    double sigma = 0;      ///< its standard uncertainty; 0: not measured
    bool cut = false;      ///< its spots touched what was not recorded

    bool seen() const { return counts > 0; }
    bool measured() const { return sigma > 0; }
};

/// Columns h, k, l, crystal, x, y, z, d, tilt, frame, column, row, counts, intensity, sigma, indexed, seen
/// and cut; empty where there is no value. Throws Failure when the file cannot be written completely.
void writeReflectionTable(std::span<const ListedReflection> reflections, const std::filesystem::path& path);

/// Reads what writeReflectionTable() wrote; columns may stand in any order, others are ignored. Throws
/// Failure with the number of the line when a column is missing or a value is none.
std::vector<ListedReflection> readReflectionTable(const std::filesystem::path& path);
/// \param path  for messages
std::vector<ListedReflection> readReflectionTable(std::istream& text, const std::filesystem::path& path);

}  // namespace vrk
