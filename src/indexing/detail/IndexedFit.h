/// \file
/// The lattice behind reflections that have their indices.
#pragma once

#include <Eigen/Core>
#include <array>
#include <optional>
#include <vector>

namespace VRK::detail {

/// Base vectors as columns and the node 000, voxels.
struct IndexedFit {
    Eigen::Matrix3d basis;
    Eigen::Vector3d origin;
};

struct IndexedPosition {
    Eigen::Vector3d position;
    std::array<int, 3> hkl;
};

/// Least squares, a second time without the reflections that lie farther than four times the median from
/// their node. Nothing when fewer than six have indices or these lie in a plane. The reflection 000, the rest
/// of the direct beam, takes no part.
std::optional<IndexedFit> fitIndexed(const std::vector<IndexedPosition>& reflections);

}  // namespace VRK::detail
