#include "pipeline/latticesearch/FurtherLattice.h"

#include <Eigen/Geometry>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/SmallMatrices.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "pipeline/latticesearch/PointsOnNodes.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

/// Points near the origin that are paired, and points that judge a rotation.
constexpr std::size_t kAnchors = 24;
constexpr std::size_t kFurtherJudges = 240;
constexpr std::size_t kQuickJudges = 40;
constexpr std::size_t kKeptRotations = 12;
/// Errors of a place that a pair may have, voxels.
constexpr double kPlaceError = 1.5;
/// Turns between the parts of a split crystal, degrees.
constexpr double kMostSplit = 8.0;
constexpr double kSplitStep = 1.0;
/// A lattice of another crystal explains this share of what is left over, and so many points.
constexpr double kLeastShare = 0.3;
constexpr int kFewestPoints = 25;
/// Thousands of rotations of one lattice do not reach this evidence on random points, nats.
constexpr double kLeastFurtherEvidence = 60.0;
/// A free search must explain this much more than the first crystal's cell.
constexpr double kMuchMore = 1.25;
/// More pairs of nodes for pairs of points than this mean points so far out that any rotation fits.
constexpr std::size_t kMostPairs = 10'000'000;

struct Node {
    Vector3d place;
    double length;
};

std::vector<Node> nodesWithin(const Matrix3d& basis, double radius) {
    constexpr double kMostNodes = 1e6;
    const auto [reach, most] = nodeBox(basis.inverse(), radius, kMostNodes);
    std::vector<Node> nodes;
    for (int h = -most[0]; h <= most[0]; ++h)
        for (int k = -most[1]; k <= most[1]; ++k)
            for (int l = -most[2]; l <= most[2]; ++l) {
                const Vector3d place = basis * Vector3d(h, k, l);
                if ((h || k || l) && place.norm() <= reach) nodes.push_back({place, place.norm()});
            }
    std::sort(nodes.begin(), nodes.end(), [](const Node& a, const Node& b) { return a.length < b.length; });
    return nodes;
}

/// The nodes whose length differs from one by no more than the error of a place.
std::span<const Node> ofLength(const std::vector<Node>& nodes, double length) {
    const auto from = std::lower_bound(nodes.begin(), nodes.end(), length - kPlaceError,
                                       [](const Node& node, double value) { return node.length < value; });
    const auto to = std::upper_bound(from, nodes.end(), length + kPlaceError,
                                     [](double value, const Node& node) { return value < node.length; });
    return {from, to};
}

Matrix3d frameOf(const Vector3d& a, const Vector3d& b) {
    Matrix3d frame;
    frame.col(0) = a.normalized();
    frame.col(2) = a.cross(b).normalized();
    frame.col(1) = frame.col(2).cross(frame.col(0));
    return frame;
}

/// Rotations by the number of judges that they put onto nodes, the best few.
class RotationContest {
public:
    RotationContest(const Lattice& lattice, const std::vector<Vector3d>& judges, double radius)
        : m_judges(lattice, judges, radius) {}

    void enter(const Matrix3d& rotation) {
        const Matrix3d back = rotation.transpose();
        const std::size_t quick = std::min(kQuickJudges, m_judges.size());
        const int atFirst = m_judges.within(back, 0, quick);
        const double scale =
            static_cast<double>(m_judges.size()) / static_cast<double>(std::max<std::size_t>(quick, 1));
        if (m_best.size() == kKeptRotations && 1.5 * (atFirst + 3) * scale < m_best.back().first) return;
        const int all = atFirst + m_judges.within(back, quick, m_judges.size());
        if (m_best.size() == kKeptRotations && all <= m_best.back().first) return;
        for (auto& [score, other] : m_best)
            if (Eigen::AngleAxisd(other.transpose() * rotation).angle() < kSameTurn) {
                if (all > score) {
                    score = all;
                    other = rotation;
                }
                sort();
                return;
            }
        m_best.emplace_back(all, rotation);
        sort();
        if (m_best.size() > kKeptRotations) m_best.pop_back();
    }

    const std::vector<std::pair<int, Matrix3d>>& best() const { return m_best; }

private:
    static constexpr double kSameTurn = 0.01;

    void sort() {
        std::stable_sort(m_best.begin(), m_best.end(),
                         [](const auto& a, const auto& b) { return a.first > b.first; });
    }

    PointsOnNodes m_judges;
    std::vector<std::pair<int, Matrix3d>> m_best;
};

/// Enters the rotations that bring two nodes to two of the innermost points.
void enterPairs(const Matrix3d& basis, std::span<const Vector3d> innermost, RotationContest& contest) {
    if (innermost.empty()) return;
    const std::vector<Node> nodes = nodesWithin(basis, innermost.back().norm() + kPlaceError);
    std::size_t pairs = 0;
    for (std::size_t i = 0; i < innermost.size(); ++i)
        for (std::size_t j = i + 1; j < innermost.size(); ++j) {
            const Vector3d& p = innermost[i];
            const Vector3d& q = innermost[j];
            const double cosine = p.dot(q) / (p.norm() * q.norm());
            if (std::abs(cosine) > 0.94) continue;
            const double angle = std::acos(cosine);
            const double error = kPlaceError * (1.0 / p.norm() + 1.0 / q.norm());
            const Matrix3d to = frameOf(p, q);
            const std::span<const Node> forP = ofLength(nodes, p.norm());
            const std::span<const Node> forQ = ofLength(nodes, q.norm());
            pairs += forP.size() * forQ.size();
            if (pairs > kMostPairs) return;
            for (const Node& a : forP)
                for (const Node& b : forQ) {
                    const double between =
                        std::acos(std::clamp(a.place.dot(b.place) / (a.length * b.length), -1.0, 1.0));
                    if (std::abs(between - angle) > error) continue;
                    contest.enter(to * frameOf(a.place, b.place).transpose());
                }
        }
}

/// Enters the small turns, in degrees.
void enterTurns(RotationContest& contest, double largest, double step) {
    const int most = static_cast<int>(largest / step);
    for (int x = -most; x <= most; ++x)
        for (int y = -most; y <= most; ++y)
            for (int z = -most; z <= most; ++z) {
                const Vector3d turn = step * kDegree * Vector3d(x, y, z);
                const double angle = turn.norm();
                if (angle == 0.0 || angle > largest * kDegree) continue;
                contest.enter(Eigen::AngleAxisd(angle, turn / angle).toRotationMatrix());
            }
}

std::vector<Vector3d> chosen(std::span<const Vector3d> points, std::size_t most) {
    const std::size_t step = 1 + points.size() / std::max<std::size_t>(most, 1);
    std::vector<Vector3d> result;
    for (std::size_t i = 0; i < points.size(); i += step)
        result.push_back(points[i]);
    return result;
}

/// The evidence for points at halves and thirds of a lattice: those of a superlattice, or ghosts.
double evidenceBetweenNodes(const Points& points, Lattice lattice) {
    double most = 0.0;
    const Matrix3d basis = lattice.basis;
    lattice.origin = Vector3d::Zero();
    for (const double part : {2.0, 3.0}) {
        lattice.basis = basis / part;
        most = std::max(most, scoreLattice(points, lattice).evidence);
    }
    return most;
}

bool explains(const LatticeScore& score) {
    return score.evidence >= kLeastFurtherEvidence && score.fraction() >= kLeastShare &&
           score.indexed >= kFewestPoints;
}

}  // namespace

std::optional<double> turnBetween(const Matrix3d& from, const Matrix3d& to) {
    constexpr double kSameMetric = 0.03;
    const Matrix3d a = reduced(from);
    const std::vector<Node> nodes = nodesWithin(reduced(to), 1.1 * a.colwise().norm().maxCoeff());
    const auto fits = [&](const Node& node, Eigen::Index column) {
        return std::abs(node.length / a.col(column).norm() - 1.0) < kSameMetric;
    };
    std::optional<double> smallest;
    for (const Node& x : nodes) {
        if (!fits(x, 0)) continue;
        for (const Node& y : nodes) {
            if (!fits(y, 1)) continue;
            for (const Node& z : nodes) {
                if (!fits(z, 2)) continue;
                Matrix3d b;
                b << x.place, y.place, z.place;
                if (std::abs(b.determinant() / a.determinant() - 1.0) > 3.0 * kSameMetric) continue;
                const Matrix3d map = b * a.inverse();
                const Matrix3d strain = map.transpose() * map - Matrix3d::Identity();
                if (strain.cwiseAbs().maxCoeff() > 2.0 * kSameMetric) continue;
                const double angle = Eigen::AngleAxisd(nearestOrthogonal(map)).angle() / kDegree;
                if (!smallest || angle < *smallest) smallest = angle;
            }
        }
    }
    return smallest;
}

bool areCommensurate(const Matrix3d& a, const Matrix3d& b) {
    constexpr double kSamePlace = 0.02;
    constexpr double kMostOff = 0.08;
    const Matrix3d shortA = reduced(a), shortB = reduced(b);
    for (const Matrix3d& map : {Matrix3d(shortA.inverse() * shortB), Matrix3d(shortB.inverse() * shortA)})
        for (int multiple = 1; multiple <= 6; ++multiple) {
            const Matrix3d scaled = multiple * map;
            if ((scaled - Matrix3d(scaled.array().round())).cwiseAbs().maxCoeff() <
                std::min(multiple * kSamePlace, kMostOff))
                return true;
        }
    return false;
}

bool areAlike(const Matrix3d& rough, const Matrix3d& refined) {
    constexpr double kAbout = 0.1;
    return sameLattice(reduced(rough), reduced(refined), kAbout);
}

std::vector<Lattice> orientationsOf(const Lattice& lattice, std::span<const Vector3d> points) {
    std::vector<Vector3d> sorted(points.begin(), points.end());
    std::sort(sorted.begin(), sorted.end(),
              [](const Vector3d& a, const Vector3d& b) { return a.squaredNorm() < b.squaredNorm(); });
    // The inner half: an error of the rotation moves them least.
    const std::span<const Vector3d> inner(
        sorted.data(), std::max(sorted.size() / 2, std::min(sorted.size(), kFurtherJudges)));
    const double radius = std::clamp(0.15 * lattice.shortestEdge(), 1.0, 2.5);
    RotationContest contest(lattice, chosen(inner, kFurtherJudges), radius);
    enterPairs(lattice.basis, inner.first(std::min(inner.size(), kAnchors)), contest);
    RotationContest splits(lattice, chosen(inner, kFurtherJudges), radius);
    enterTurns(splits, kMostSplit, kSplitStep);

    std::vector<std::pair<double, Lattice>> fitted;
    for (const RotationContest* one : {&contest, &splits})
        for (const auto& [count, rotation] : one->best()) {
            Lattice turned = lattice;
            turned.basis = rotation * lattice.basis;
            turned.origin = Vector3d::Zero();
            for (const double reach : {radius, 0.7 * radius})
                turned = fitWithin(points, turned, reach);
            // A fit to chance points bends the cell.
            const std::optional<double> turn = turnBetween(lattice.basis, turned.basis);
            if (turn) fitted.emplace_back(scoreLattice(points, turned).evidence, turned);
        }
    std::stable_sort(fitted.begin(), fitted.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<Lattice> result;
    result.reserve(fitted.size());
    for (auto& [evidence, one] : fitted)
        result.push_back(std::move(one));
    return result;
}

std::optional<Lattice> partOfSplit(const Lattice& average, std::span<const Vector3d> points) {
    constexpr double kTight = 1.2;  // voxels
    constexpr double kMostTurn = 4.0, kStep = 0.5;
    constexpr double kManyMore = 1.15;
    const auto within = [&](const Lattice& lattice) {
        const Matrix3d inverse = lattice.basis.inverse();
        return static_cast<double>(std::count_if(points.begin(), points.end(), [&](const Vector3d& point) {
            return distanceToNode(point, lattice, inverse) <= kTight;
        }));
    };
    std::optional<Lattice> best;
    double most = kManyMore * within(average);
    // The fit to two parts may have the wrong scale as well.
    for (const double scale : {1.0, 0.995, 1.005, 0.99, 1.01, 0.985, 1.015}) {
        Lattice scaled = average;
        scaled.basis *= scale;
        scaled.origin = Vector3d::Zero();
        RotationContest contest(scaled, chosen(points, kFurtherJudges), kTight);
        enterTurns(contest, kMostTurn, kStep);
        for (const auto& [count, rotation] : contest.best()) {
            Lattice part = scaled;
            part.basis = rotation * scaled.basis;
            part = fitWithin(points, part, kTight);
            const double found = within(part);
            if (found <= most || !turnBetween(average.basis, part.basis)) continue;
            most = found;
            best = part;
        }
    }
    return best;
}

std::optional<FurtherLattice> findFurtherLattice(const Points& points, const std::vector<double>& weights,
                                                 std::span<const Lattice> known, const CellSearch* search) {
    if (known.empty() || points.size() < static_cast<std::size_t>(kFewestPoints)) return std::nullopt;
    const auto isNew = [&](const Lattice& lattice) {
        return std::none_of(known.begin(), known.end(), [&](const Lattice& other) {
            return areCommensurate(other.basis, lattice.basis);
        });
    };
    std::optional<FurtherLattice> best;
    for (const Lattice& lattice : orientationsOf(known.front(), points)) {
        const LatticeScore score = scoreLattice(points, lattice);
        if (!explains(score) || !isNew(lattice)) continue;
        best = FurtherLattice{{lattice, score, {}}, true};
        break;
    }
    // What the same cell explains nearly wholly needs no other one.
    constexpr double kNearlyAll = 0.75;
    if (search && (!best || best->candidate.score.fraction() < kNearlyAll))
        for (LatticeCandidate& candidate : search->search(points, weights)) {
            if (!explains(candidate.score) || !isNew(candidate.lattice)) continue;
            if (!best || candidate.score.evidence > kMuchMore * best->candidate.score.evidence) {
                const bool same = turnBetween(known.front().basis, candidate.lattice.basis).has_value();
                best = FurtherLattice{std::move(candidate), same};
            }
            break;
        }
    constexpr double kAsMuch = 0.6;
    if (best && std::any_of(known.begin(), known.end(), [&](const Lattice& lattice) {
            return evidenceBetweenNodes(points, lattice) > kAsMuch * best->candidate.score.evidence;
        }))
        return std::nullopt;
    if (best) best->candidate.lattice.pixelSize = known.front().pixelSize;
    return best;
}

}  // namespace vrk
