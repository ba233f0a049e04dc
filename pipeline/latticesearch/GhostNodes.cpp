#include "pipeline/latticesearch/GhostNodes.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>
#include <vector>

namespace vrk {
namespace {

using Eigen::Vector3d;

/// Closer to the tilt axis than this, in voxels, a place says nothing of its tilt.
constexpr double kOnAxis = 3.0;

/// Whether a place is farther from the tilt axis than that; the root is taken where it decides.
bool isOffAxis(double x, double z) {
    constexpr double kSquare = kOnAxis * kOnAxis;
    const double square = x * x + z * z;
    if (square > 1.0001 * kSquare) return true;
    return square >= 0.9999 * kSquare && std::hypot(x, z) > kOnAxis;
}

/// The tilt at which a place relative to the origin was recorded, radians in half a turn.
double tiltOf(const Vector3d& place) {
    return std::atan2(place.z(), place.x()) -
           (place.x() < 0.0 ? std::copysign(std::numbers::pi, place.z()) : 0.0);
}

/// Ascending.
std::vector<double> tiltsOf(std::span<const Vector3d> points, const Vector3d& origin) {
    std::vector<double> tilts;
    for (const Vector3d& point : points)
        if (isOffAxis(point.x() - origin.x(), point.z() - origin.z()))
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
    const auto fractionsOf = [&](std::span<const Vector3d> points) {
        std::vector<Vector3d> fractions;
        fractions.reserve(points.size());
        for (const Vector3d& point : points)
            fractions.emplace_back(inverse * (point - lattice.origin));
        return fractions;
    };
    const auto shareIn = [](const std::vector<Vector3d>& fractions, const Vector3d& normal) {
        double within = 0.0;
        for (const Vector3d& fraction : fractions)
            within += std::abs(normal.dot(fraction)) < 0.2 ? 1.0 : 0.0;
        return within / static_cast<double>(std::max<std::size_t>(fractions.size(), 1));
    };
    const std::vector<Vector3d> ofBetween = fractionsOf(between), ofOn = fractionsOf(on);
    for (int n = 1; n < 14; ++n) {
        // One of each pair of opposite directions with indices of -1, 0 and 1.
        const int code = n + 13;  // in the base of three
        const Vector3d direction =
            Eigen::Vector3i(code / 9 - 1, code / 3 % 3 - 1, code % 3 - 1).cast<double>();
        if (shareIn(ofBetween, direction) > kNearly && shareIn(ofOn, direction) < kFew) return true;
    }
    return false;
}

/// A node's tilt, and whether it has a reflection.
using NodeTilt = std::pair<double, bool>;

/// Sorts tilts of a range: into as many intervals as there are tilts, then within each, where few meet.
void sortByTilt(std::vector<NodeTilt>& nodes, double first, double last) {
    const auto count = static_cast<double>(nodes.size());
    const double perInterval = last > first ? count / (last - first) : 0.0;
    const auto intervalOf = [&](const NodeTilt& node) {
        return static_cast<std::size_t>(std::clamp((node.first - first) * perInterval, 0.0, count));
    };
    std::vector<std::size_t> begin(nodes.size() + 2, 0);
    for (const NodeTilt& node : nodes)
        ++begin[intervalOf(node) + 1];
    for (std::size_t i = 1; i < begin.size(); ++i)
        begin[i] += begin[i - 1];
    std::vector<NodeTilt> sorted(nodes.size());
    std::vector<std::size_t> next(begin.begin(), begin.end() - 1);
    for (const NodeTilt& node : nodes)
        sorted[next[intervalOf(node)]++] = node;
    for (std::size_t i = 0; i + 1 < begin.size(); ++i)
        if (begin[i + 1] - begin[i] > 1)
            std::sort(sorted.begin() + static_cast<std::ptrdiff_t>(begin[i]),
                      sorted.begin() + static_cast<std::ptrdiff_t>(begin[i + 1]));
    nodes.swap(sorted);
}

/// Whether there is a reflection at the nodes of a box about the origin.
class FoundNodes {
public:
    FoundNodes(const Lattice& lattice, const Indices& end)
        : m_end(end), m_inverse(lattice.basis.inverse()), m_origin(lattice.origin) {
        std::size_t nodes = 1;
        for (const int last : end)
            nodes *= static_cast<std::size_t>(2 * last + 1);
        m_found.resize(nodes);
    }
    void add(const Vector3d& point) {
        const Vector3d q = (m_inverse * (point - m_origin)).array().round();
        for (std::size_t i = 0; i < 3; ++i)
            if (!(std::abs(q[static_cast<Eigen::Index>(i)]) <= m_end[i])) return;
        m_found[placeOf(static_cast<int>(q[0]), static_cast<int>(q[1]), static_cast<int>(q[2]))] = 1;
    }
    bool contains(int h, int k, int l) const { return m_found[placeOf(h, k, l)] != 0; }

private:
    std::size_t placeOf(int h, int k, int l) const {
        const auto width = [this](std::size_t i) { return static_cast<std::size_t>(2 * m_end[i] + 1); };
        return (static_cast<std::size_t>(h + m_end[0]) * width(1) + static_cast<std::size_t>(k + m_end[1])) *
                   width(2) +
               static_cast<std::size_t>(l + m_end[2]);
    }

    Indices m_end;
    Eigen::Matrix3d m_inverse;
    Vector3d m_origin;
    std::vector<char> m_found;
};

/// The tilts of the nodes up to a radius that lie in a range, ascending, and whether each has a reflection.
std::vector<NodeTilt> nodesByTilt(const Lattice& lattice, std::span<const Vector3d> on, double first,
                                  double last) {
    constexpr double kReach = 0.75;  // of the farthest reflection: beyond, they are faint
    constexpr double kMostNodes = 20000.0;
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    double farthest = 0.0;
    for (const Vector3d& point : on)
        farthest = std::max(farthest, (point - lattice.origin).norm());
    const double most = std::cbrt(kMostNodes * lattice.cellVolume() * 3.0 / (4.0 * std::numbers::pi));
    const double radius = std::min(kReach * farthest, most);
    Indices end{};
    for (std::size_t i = 0; i < 3; ++i)
        end[i] = static_cast<int>(radius * inverse.row(static_cast<Eigen::Index>(i)).norm());
    FoundNodes found(lattice, end);
    for (const Vector3d& point : on)
        found.add(point);
    std::vector<NodeTilt> nodes;
    for (int h = -end[0]; h <= end[0]; ++h)
        for (int k = -end[1]; k <= end[1]; ++k)
            for (int l = -end[2]; l <= end[2]; ++l) {
                const Vector3d place = lattice.basis * Vector3d(h, k, l);
                if (place.norm() > radius || !isOffAxis(place.x(), place.z())) continue;
                const double tilt = tiltOf(place);
                if (tilt >= first && tilt <= last) nodes.emplace_back(tilt, found.contains(h, k, l));
            }
    sortByTilt(nodes, first, last);
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
