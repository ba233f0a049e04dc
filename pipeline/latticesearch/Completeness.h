/// \file
/// Which nodes of a lattice a series could have shown, and which of them it did.
#pragma once

#include <Eigen/Core>
#include <array>
#include <span>
#include <vector>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// The part of reciprocal space that a series recorded.
struct RecordedSpace {
    double tiltFirst = 0.0;   ///< radians, ascending
    double tiltLast = 0.0;    ///< radians
    double halfWidth = 0.0;   ///< of the frames, voxels
    double zeroBeam = 0.0;    ///< radius that was cut off around the direct beam, voxels
    double wavelength = 0.0;  ///< Angstrom; 0 for a flat sphere
    int sense = 0;            ///< of the tilt, as in EwaldCurvature

    /// The tilt at which a place relative to the origin lies on the Ewald sphere, radians; NaN where it never
    /// does or where no pattern shows it, and for places so close to the axis that they stay on the sphere.
    double tiltOf(const Eigen::Vector3d& place, double pixelSize) const;
};

/// Nodes of the recorded space and how many of them were found.
struct NodeCount {
    int nodes = 0;
    int found = 0;
    double share() const { return nodes > 0 ? static_cast<double>(found) / nodes : 0.0; }
};

struct Completeness {
    static constexpr std::size_t kShells = 10;

    /// Shells of equal reciprocal volume up to `limit`, from the inside out.
    std::array<NodeCount, kShells> shells{};
    /// By the parities of h, k, l (4 (h & 1) + 2 (k & 1) + (l & 1)), over the shells of the core.
    std::array<NodeCount, 8> parities{};
    NodeCount all;       ///< up to `limit`
    NodeCount core;      ///< the shells from the inside to the last that has half the share of the best one
    double limit = 0.0;  ///< radius that holds 98 % of the indexed reflections, voxels
    double halfRadius =
        0.0;  ///< radius up to which half of the nodes of a shell are found, voxels; 0: nowhere

    /// Share of the emptiest parity class of the core that could be judged over that of the fullest: near 1
    /// where every class belongs to the lattice, near 0 where half of the nodes are made up.
    /// 1 where fewer than two classes have enough nodes.
    double evenness() const;
    /// Share of the fullest shell that has enough nodes; of all nodes where none has.
    double bestShell() const;
};

/// \param indices  of the reflections that were found; kNotIndexed for those off the lattice
Completeness completenessOf(const Lattice& lattice, std::span<const Indices> indices,
                            const RecordedSpace& space);

}  // namespace vrk
