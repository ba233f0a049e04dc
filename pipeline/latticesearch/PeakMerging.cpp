#include "pipeline/latticesearch/PeakMerging.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>
#include <unordered_map>

#include "pipeline/base/SmallMatrices.h"
#include "pipeline/latticesearch/CellSearch.h"

namespace vrk {
namespace {

using Eigen::Vector3d;

struct Pair {
    std::size_t a;
    std::size_t b;
    double distance;
};

/// Visits every pair of points within a distance, by cubes of that edge, until the visitor returns false.
template <typename Visitor>
void visitPairsWithin(const Points& points, double distance, Visitor visit) {
    using Cube = Eigen::Matrix<std::int64_t, 3, 1>;
    const auto cubeOf = [&](const Vector3d& p) {
        return Cube((p / distance).array().floor().max(-1e6).min(1e6).matrix().cast<std::int64_t>());
    };
    const auto keyOf = [](const Cube& cube) {
        constexpr std::int64_t half = 1 << 20;
        return ((cube[0] + half) << 42) + ((cube[1] + half) << 21) + cube[2] + half;
    };
    std::unordered_map<std::int64_t, std::vector<std::size_t>> cubes;
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Cube centre = cubeOf(points[i]);
        for (int n = 0; n < 27; ++n) {
            const auto found = cubes.find(keyOf(centre + Cube(n / 9 - 1, n / 3 % 3 - 1, n % 3 - 1)));
            if (found == cubes.end()) continue;
            for (const std::size_t j : found->second) {
                const double d = (points[i] - points[j]).norm();
                if (d <= distance && !visit(Pair{j, i, d})) return;
            }
        }
        cubes[keyOf(centre)].push_back(i);
    }
}

/// Which points are connected.
class Groups {
public:
    explicit Groups(std::size_t size) : m_parent(size) {
        std::iota(m_parent.begin(), m_parent.end(), std::size_t{0});
    }
    std::size_t of(std::size_t i) {
        while (m_parent[i] != i)
            i = m_parent[i] = m_parent[m_parent[i]];
        return i;
    }
    /// \returns false when they were connected before
    bool connect(std::size_t a, std::size_t b) {
        a = of(a);
        b = of(b);
        m_parent[std::max(a, b)] = std::min(a, b);
        return a != b;
    }

private:
    std::vector<std::size_t> m_parent;
};

/// The shortest connections that reach everything within a distance, ascending; none for a list in which
/// points crowd.
std::vector<Pair> shortestTree(const Points& points, double distance) {
    constexpr std::size_t mostNeighbours = 300;
    std::vector<Pair> pairs;
    visitPairsWithin(points, distance, [&](const Pair& pair) {
        pairs.push_back(pair);
        return pairs.size() < mostNeighbours * points.size();
    });
    if (pairs.size() >= mostNeighbours * points.size()) return {};
    std::sort(pairs.begin(), pairs.end(),
              [](const Pair& x, const Pair& y) { return x.distance < y.distance; });
    Groups groups(points.size());
    std::erase_if(pairs, [&](const Pair& pair) { return !groups.connect(pair.a, pair.b); });
    return pairs;
}

double quantileOf(std::vector<double>& values, double share) {
    const auto at =
        values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

/// What is connected, with its extent and the direction in which that is largest.
struct Group {
    Vector3d mean;
    double extent;
    Vector3d direction;
};

std::vector<Group> groupsOf(const Points& points, const std::vector<Pair>& connections) {
    Groups groups(points.size());
    for (const Pair& pair : connections)
        groups.connect(pair.a, pair.b);
    std::unordered_map<std::size_t, std::vector<std::size_t>> members;
    for (std::size_t i = 0; i < points.size(); ++i)
        members[groups.of(i)].push_back(i);
    std::vector<Group> result;
    for (const auto& [first, list] : members) {
        if (list.size() < 2) continue;
        Group group{Vector3d::Zero(), 0.0, Vector3d::Zero()};
        Eigen::Matrix3d moments = Eigen::Matrix3d::Zero();
        for (const std::size_t i : list)
            group.mean += points[i] / static_cast<double>(list.size());
        for (const std::size_t i : list) {
            const Vector3d off = points[i] - group.mean;
            moments += off * off.transpose();
            group.extent = std::max(group.extent, 2.0 * off.norm());
        }
        group.direction = principalAxes(moments).axes.col(2);
        result.push_back(group);
    }
    return result;
}

/// Whether groups can be arcs of one reflection each, where others begin at a distance: short, or at least
/// not as long as that, not pointing to the origin, and not all along one direction.
bool areArcs(const std::vector<Group>& groups, double beyond) {
    constexpr double mostExtent = 0.8;
    constexpr double smallExtent = 0.3;
    constexpr double mostRadial = 0.35;
    constexpr double mostParallel = 0.9;
    std::vector<double> extents, radial;
    Eigen::Matrix3d directions = Eigen::Matrix3d::Zero();
    for (const Group& group : groups) {
        extents.push_back(group.extent);
        radial.push_back(std::abs(group.direction.dot(group.mean.normalized())));
        directions += group.direction * group.direction.transpose() / static_cast<double>(groups.size());
    }
    const double extent = quantileOf(extents, 0.9);
    if (extent <= smallExtent * beyond || extent > mostExtent * beyond) return extent <= smallExtent * beyond;
    const Vector3d shares = principalAxes(directions).moments;
    return quantileOf(radial, 0.5) < mostRadial && shares[2] < mostParallel;
}

}  // namespace

double mergingDistance(const Points& points) {
    constexpr std::size_t fewest = 50;
    constexpr double leastMerged = 0.25;  // of the points
    constexpr double leastApart = 0.05;   // of the points are groups of their own
    constexpr double strays = 0.03;       // of the points may have their distance in the gap
    constexpr double leastGap = 1.7;
    constexpr double smallest = 0.01;  // voxels
    if (points.size() < fewest) return 0.0;
    const double reach = std::max(4.0 * neighbourDistance(points, 4), 1.5 * neighbourDistance(points, 12));
    if (!(reach > 0.0)) return 0.0;
    std::vector<Pair> tree = shortestTree(points, reach);

    const auto share = [&](double part) {
        return static_cast<std::size_t>(part * static_cast<double>(points.size()));
    };
    double widest = leastGap;
    std::size_t merged = 0;
    double beyond = 0.0;
    for (std::size_t i = share(leastMerged); i < tree.size() && i + share(leastApart) < points.size(); ++i) {
        const std::size_t end = i + share(strays);
        const double next = end < tree.size() ? tree[end].distance : reach;
        const double gap = next / std::max(tree[i].distance, smallest);
        if (gap <= widest) continue;
        widest = gap;
        merged = i + 1;
        beyond = next;
    }
    if (merged == 0) return 0.0;
    const double last = std::max(tree[merged - 1].distance, smallest);
    tree.resize(merged);
    if (!areArcs(groupsOf(points, tree), beyond)) return 0.0;
    // Three digits, so that it can be typed.
    const double distance = std::sqrt(last * beyond);
    const double unit = std::pow(10.0, std::floor(std::log10(distance)) - 2.0);
    return std::round(distance / unit) * unit;
}

void mergePeaks(Points& points, std::vector<double>& weights, double distance) {
    Groups groups(points.size());
    visitPairsWithin(points, distance, [&](const Pair& pair) {
        groups.connect(pair.a, pair.b);
        return true;
    });
    // The first point of a group stands for it; points without intensity count alike where no other has one.
    struct Sum {
        Vector3d weighted = Vector3d::Zero();
        Vector3d plain = Vector3d::Zero();
        double weight = 0.0;
        double count = 0.0;
    };
    std::vector<Sum> sums(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        Sum& sum = sums[groups.of(i)];
        const double weight = i < weights.size() ? weights[i] : 0.0;
        sum.weighted += weight * points[i];
        sum.plain += points[i];
        sum.weight += weight;
        sum.count += 1.0;
    }
    points.clear();
    weights.clear();
    for (const Sum& sum : sums) {
        if (sum.count == 0.0) continue;
        points.push_back(sum.weight > 0.0 ? Vector3d(sum.weighted / sum.weight)
                                          : Vector3d(sum.plain / sum.count));
        weights.push_back(sum.weight);
    }
}

}  // namespace vrk
