/// \file
/// Counting of points that lie on the nodes of a turned lattice.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

/// Points of which many rotations ask how many lie near the nodes of a lattice. Coordinates lie in arrays of
/// their own: vector units do two to eight points at once.
class PointsOnNodes {
public:
    /// \param radius  within which a point belongs to a node
    PointsOnNodes(const Lattice& lattice, std::span<const Eigen::Vector3d> points, double radius);

    std::size_t size() const { return m_points[0].size(); }
    /// How many of the points from \p from to before \p to lie near a node when \p back has turned them about
    /// 0. The origin of the lattice is not asked.
    int within(const Eigen::Matrix3d& back, std::size_t from, std::size_t to) const;

private:
    Eigen::Matrix3d m_inverse;
    Eigen::Matrix3d m_basis;
    double m_square;
    std::array<std::vector<double>, 3> m_points;
};

}  // namespace vrk
