#include "pipeline/latticesearch/GhostNodes.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>
#include <utility>
#include <vector>

#include "pipeline/latticesearch/LatticeFit.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

/// Closer to the tilt axis than this, in voxels, a place says nothing of its tilt.
constexpr double kOnAxis = 3.0;

/// The tilt at which a place relative to the origin was recorded, radians in half a turn.
double tiltOf(const Vector3d& place) {
    return std::atan2(place.z(), place.x()) -
           (place.x() < 0.0 ? std::copysign(std::numbers::pi, place.z()) : 0.0);
}

/// Ascending.
std::vector<double> tiltsOf(std::span<const Vector3d> points, const Vector3d& origin) {
    std::vector<double> tilts;
    for (const Vector3d& point : points)
        if (std::hypot(point.x() - origin.x(), point.z() - origin.z()) > kOnAxis)
            tilts.push_back(tiltOf(point - origin));
    std::sort(tilts.begin(), tilts.end());
    return tilts;
}

/// How many ascending values lie in a range.
double countBetween(const std::vector<double>& values, double from, double to) {
    return static_cast<double>(std::upper_bound(values.begin(), values.end(), to) -
                               std::lower_bound(values.begin(), values.end(), from));
}

bool areInNarrowRange(const std::vector<double>& ghosts, const std::vector<double>& others) {
    constexpr double kWidth = 0.12;  // of all tilts
    constexpr double kMost = 0.6;
    constexpr double kFew = 0.2;
    if (ghosts.empty() || others.empty()) return false;
    const double width =
        kWidth * (std::max(ghosts.back(), others.back()) - std::min(ghosts.front(), others.front()));
    return std::any_of(ghosts.begin(), ghosts.end(), [&](double from) {
        return countBetween(ghosts, from, from + width) > kMost * static_cast<double>(ghosts.size()) &&
               countBetween(others, from, from + width) < kFew * static_cast<double>(others.size());
    });
}

bool areInOneLayer(std::span<const Vector3d> between, std::span<const Vector3d> on, const Lattice& lattice) {
    constexpr double kNearly = 0.85;
    constexpr double kFew = 0.35;
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    const auto shareIn = [&](std::span<const Vector3d> points, const Vector3d& normal) {
        double within = 0.0;
        for (const Vector3d& point : points)
            within += std::abs(normal.dot(inverse * (point - lattice.origin))) < 0.2 ? 1.0 : 0.0;
        return within / static_cast<double>(std::max<std::size_t>(points.size(), 1));
    };
    for (int n = 1; n < 14; ++n) {
        // One of each pair of opposite directions with indices of -1, 0 and 1.
        const int code = n + 13;  // in the base of three
        const Vector3d direction =
            Eigen::Vector3i(code / 9 - 1, code / 3 % 3 - 1, code % 3 - 1).cast<double>();
        if (shareIn(between, direction) > kNearly && shareIn(on, direction) < kFew) return true;
    }
    return false;
}

/// The tilts of the nodes up to a radius that lie in a range, ascending, and whether each has a reflection.
std::vector<std::pair<double, bool>> nodesByTilt(const Lattice& lattice, std::span<const Vector3d> on,
                                                 double first, double last) {
    constexpr double kReach = 0.75;  // of the farthest reflection: beyond, they are faint
    constexpr double kMostNodes = 20000.0;
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    std::set<Indices> found;
    double farthest = 0.0;
    for (const Vector3d& point : on) {
        found.insert(indexPosition(inverse * (point - lattice.origin), 0.5));
        farthest = std::max(farthest, (point - lattice.origin).norm());
    }
    const double most = std::cbrt(kMostNodes * lattice.cellVolume() * 3.0 / (4.0 * std::numbers::pi));
    const auto [radius, end] = nodeBox(inverse, std::min(kReach * farthest, most), 5.0 * kMostNodes);
    std::vector<std::pair<double, bool>> nodes;
    for (int h = -end[0]; h <= end[0]; ++h)
        for (int k = -end[1]; k <= end[1]; ++k)
            for (int l = -end[2]; l <= end[2]; ++l) {
                const Vector3d place = lattice.basis * Vector3d(h, k, l);
                if (place.norm() > radius || std::hypot(place.x(), place.z()) <= kOnAxis) continue;
                const double tilt = tiltOf(place);
                if (tilt >= first && tilt <= last) nodes.emplace_back(tilt, found.contains({h, k, l}));
            }
    std::sort(nodes.begin(), nodes.end());
    return nodes;
}

/// Whether the nodes of the lattice are missing at the tilts of the ghosts though they are found elsewhere.
bool areWhereNodesAreMissing(const std::vector<double>& ghosts, const std::vector<double>& others,
                             std::span<const Vector3d> on, const Lattice& lattice) {
    constexpr double kMissing = 0.5;
    constexpr std::ptrdiff_t kNeighbours = 6;  // to either side
    if (ghosts.empty() || others.empty()) return false;
    const auto nodes = nodesByTilt(lattice, on, std::min(ghosts.front(), others.front()),
                                   std::max(ghosts.back(), others.back()));
    const auto size = static_cast<std::ptrdiff_t>(nodes.size());
    if (size < 8 * kNeighbours) return false;
    double foundNear = 0.0, near = 0.0, found = 0.0;
    for (const auto& node : nodes)
        found += node.second ? 1.0 : 0.0;
    for (const double tilt : ghosts) {
        const auto at = std::lower_bound(nodes.begin(), nodes.end(), std::pair(tilt, false)) - nodes.begin();
        for (auto i = std::max<std::ptrdiff_t>(at - kNeighbours, 0); i < std::min(at + kNeighbours, size);
             ++i) {
            foundNear += nodes[static_cast<std::size_t>(i)].second ? 1.0 : 0.0;
            near += 1.0;
        }
    }
    return near > 0.0 && foundNear / near < kMissing * found / static_cast<double>(size);
}

}  // namespace

bool areGhosts(std::span<const Vector3d> between, std::span<const Vector3d> on, const Lattice& lattice) {
    const std::vector<double> ghosts = tiltsOf(between, lattice.origin);
    const std::vector<double> others = tiltsOf(on, lattice.origin);
    return areInNarrowRange(ghosts, others) || areInOneLayer(between, on, lattice) ||
           areWhereNodesAreMissing(ghosts, others, on, lattice);
}

}  // namespace vrk
