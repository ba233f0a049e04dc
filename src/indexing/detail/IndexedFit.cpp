#include "indexing/detail/IndexedFit.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <limits>

#include "foundation/detail/Median.h"

namespace VRK::detail {
namespace {

constexpr std::size_t kFewest = 6;
constexpr double kOutlier = 4.0;  // medians

Eigen::Vector4d nodeOf(const IndexedPosition& reflection) {
    return {static_cast<double>(reflection.hkl[0]), static_cast<double>(reflection.hkl[1]),
            static_cast<double>(reflection.hkl[2]), 1.0};
}

double distance(const IndexedPosition& reflection, const IndexedFit& fit) {
    return (reflection.position - fit.origin - fit.basis * nodeOf(reflection).head<3>()).norm();
}

std::optional<IndexedFit> fitOnce(const std::vector<IndexedPosition>& reflections) {
    if (reflections.size() < kFewest) return std::nullopt;
    Eigen::Matrix4d normal = Eigen::Matrix4d::Zero();
    Eigen::Matrix<double, 4, 3> side = Eigen::Matrix<double, 4, 3>::Zero();
    for (const IndexedPosition& reflection : reflections) {
        normal += nodeOf(reflection) * nodeOf(reflection).transpose();
        side += nodeOf(reflection) * reflection.position.transpose();
    }
    const Eigen::Vector4d scale = normal.diagonal().cwiseMax(1e-300).cwiseSqrt().cwiseInverse();
    const Eigen::Matrix4d scaled = scale.asDiagonal() * normal * scale.asDiagonal();
    // All eigenvalues are above a limit when the matrix less the limit is positive definite.
    const Eigen::LDLT<Eigen::Matrix4d> less(scaled - 1e-9 * Eigen::Matrix4d::Identity());
    if (!scaled.allFinite() || !(less.vectorD().minCoeff() > 0.0)) return std::nullopt;
    const Eigen::Matrix<double, 4, 3> solution = normal.ldlt().solve(side);
    return IndexedFit{solution.topRows<3>().transpose(), solution.row(3).transpose()};
}

}  // namespace

std::optional<IndexedFit> fitIndexed(const std::vector<IndexedPosition>& reflections) {
    std::vector<IndexedPosition> used;
    std::copy_if(reflections.begin(), reflections.end(), std::back_inserter(used),
                 [](const IndexedPosition& one) {
                     return one.hkl != std::array<int, 3>{0, 0, 0};
                 });
    const std::optional<IndexedFit> all = fitOnce(used);
    if (!all) return std::nullopt;
    std::vector<double> distances;
    for (const IndexedPosition& one : used)
        distances.push_back(distance(one, *all));
    const double limit = kOutlier * medianOf(distances);
    used.erase(std::remove_if(used.begin(), used.end(),
                              [&](const IndexedPosition& one) { return distance(one, *all) > limit; }),
               used.end());
    const std::optional<IndexedFit> most = fitOnce(used);
    return most ? most : all;
}

}  // namespace VRK::detail
