#include "pipeline/latticesearch/PointsOnNodes.h"

#include <Eigen/LU>
#include <cstdint>

namespace vrk {
namespace {

/// Added and taken away again, it leaves the nearest whole number, without a call for each.
constexpr double kWhole = 6755399441055744.0;  // 1.5 * 2^52

/// \param toIndices, basis  3 x 3, column by column
#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
std::int64_t
countNear(const double* x, const double* y, const double* z, std::size_t n, const double* toIndices,
          const double* basis, double square) {
    const double m0 = toIndices[0], m1 = toIndices[1], m2 = toIndices[2];
    const double m3 = toIndices[3], m4 = toIndices[4], m5 = toIndices[5];
    const double m6 = toIndices[6], m7 = toIndices[7], m8 = toIndices[8];
    const double b0 = basis[0], b1 = basis[1], b2 = basis[2];
    const double b3 = basis[3], b4 = basis[4], b5 = basis[5];
    const double b6 = basis[6], b7 = basis[7], b8 = basis[8];
    std::int64_t near = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double h = m0 * x[i] + m3 * y[i] + m6 * z[i];
        const double k = m1 * x[i] + m4 * y[i] + m7 * z[i];
        const double l = m2 * x[i] + m5 * y[i] + m8 * z[i];
        const double offH = h - ((h + kWhole) - kWhole);
        const double offK = k - ((k + kWhole) - kWhole);
        const double offL = l - ((l + kWhole) - kWhole);
        const double u = b0 * offH + b3 * offK + b6 * offL;
        const double v = b1 * offH + b4 * offK + b7 * offL;
        const double w = b2 * offH + b5 * offK + b8 * offL;
        near += u * u + v * v + w * w <= square ? 1 : 0;
    }
    return near;
}

}  // namespace

PointsOnNodes::PointsOnNodes(const Lattice& lattice, std::span<const Eigen::Vector3d> points, double radius)
    : m_inverse(lattice.basis.inverse()), m_basis(lattice.basis), m_square(radius * radius) {
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<double>& coordinates = m_points[static_cast<std::size_t>(axis)];
        coordinates.reserve(points.size());
        for (const Eigen::Vector3d& point : points)
            coordinates.push_back(point[axis]);
    }
}

int PointsOnNodes::within(const Eigen::Matrix3d& back, std::size_t from, std::size_t to) const {
    const Eigen::Matrix3d toIndices = m_inverse * back;
    return static_cast<int>(countNear(m_points[0].data() + from, m_points[1].data() + from,
                                      m_points[2].data() + from, to - from, toIndices.data(), m_basis.data(),
                                      m_square));
}

}  // namespace vrk
