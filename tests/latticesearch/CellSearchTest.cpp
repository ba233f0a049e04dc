#include "pipeline/latticesearch/CellSearch.h"

#include <Eigen/Geometry>

#include "crystallography/RandomLattice.h"
#include "latticesearch/SeenNodes.h"
#include "pipeline/base/Angle.h"
#include "pipeline/latticesearch/GhostNodes.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "support/SoFar.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::Lattice;
using vrk::LatticeCandidate;
using vrk::LatticeScore;
using vrk::Points;

constexpr double kReach = 80.0;

struct Crystal {
    Matrix3d basis;  // primitive, reciprocal, voxels
    double seen = 0.5;
    double seenOddH = 0.5;  // of the reflections with odd h, weak in a superstructure
    double noise = 0.35;
    double outliers = 0.4;  // share of the list
};

/// A primitive base of a type, turned, of a volume as reciprocal cells of real crystals have it.
Matrix3d randomBasis(testing_support::RandomLattice& random, LATTICE::BravaisTypes type) {
    const Matrix3d cell = testing_support::baseOf(random.primitive(type));
    const Eigen::AngleAxisd turn(random.uniform(0.0, 3.0), Vector3d(1, 2, 3).normalized());
    return turn.toRotationMatrix() * cell * (11.0 / std::cbrt(cell.determinant()));
}

Points pointsOf(const Crystal& crystal, std::mt19937& random) {
    std::uniform_real_distribution<double> place(-kReach, kReach);
    const auto inWedge = [](const Vector3d& p) { return std::abs(p[2]) > 1.7 * std::abs(p[0]); };
    Points points = seenNodes(crystal.basis, {4.0, kReach, crystal.noise}, random,
                              [&](int h, int, int) { return h % 2 == 0 ? crystal.seen : crystal.seenOddH; });
    auto wrong = static_cast<std::size_t>(crystal.outliers / (1.0 - crystal.outliers) *
                                          static_cast<double>(points.size()));
    while (wrong > 0) {
        const Vector3d p(place(random), place(random), place(random));
        if (p.norm() > kReach || inWedge(p)) continue;
        points.push_back(p);
        --wrong;
    }
    return points;
}

TEST(CellSearch, EndsWithStraysFarBeyondAnyVolume) {
    // Close nodes, so that layers and rows are looked for, whose spectra have a step for every bit of reach.
    const Matrix3d basis = Vector3d(6.0, 7.0, 8.0).asDiagonal();
    std::mt19937 random(7);
    std::uniform_int_distribution<int> index(-4, 4);
    Points points;
    for (int i = 0; i < 60; ++i)
        points.push_back(basis * Vector3d(index(random), index(random), index(random)));
    for (const double far : {1e5, 1e9, 1e300}) {
        points.insert(points.end(), 8, Vector3d(far, 3.0, 5.0));
        points.emplace_back(1.0, far, -7.0);
        points.emplace_back(2.0, 5.0, -far);
    }
    const std::vector<LatticeCandidate> found = vrk::CellSearch().search(points, {});
    for (const LatticeCandidate& candidate : found)
        EXPECT_TRUE(candidate.lattice.basis.allFinite());
    // A box of indices stays small where one edge is out of all proportion.
    const vrk::NodeBox box = vrk::nodeBox(Vector3d(1.0, 1.0, 1e-6).asDiagonal(), 1e5, 1e6);
    EXPECT_NEAR(box.radius, 500.0, 100.0);
    EXPECT_EQ(box.most[0], static_cast<int>(box.radius));
    EXPECT_EQ(vrk::nodeBox(Matrix3d::Constant(HUGE_VAL), 1.0, 1e6).radius, 0.0);
}

TEST(CellSearch, FindsTheLatticeBehindAWedgeAndOutliers) {
    std::mt19937 random(11);
    SoFar soFar;
    // A weak superlattice, and more points than a search takes.
    std::vector<Crystal> crystals = {
        {.basis = Vector3d(6.0, 11.0, 13.0).asDiagonal(), .seen = 0.8, .seenOddH = 0.12, .outliers = 0.1},
        {.basis = Vector3d(6.0, 7.0, 9.0).asDiagonal(), .seen = 0.7, .seenOddH = 0.7}};
    testing_support::RandomLattice lattices(11);
    for (const auto type : {LATTICE::aP, LATTICE::oI, LATTICE::cF, LATTICE::mC, LATTICE::hR, LATTICE::aP})
        crystals.push_back({randomBasis(lattices, type)});
    for (const Crystal& crystal : crystals) {
        SCOPED_TRACE(crystal.basis);
        const Points points = pointsOf(crystal, random);
        std::vector<double> weights;
        for (const Vector3d& point : points)
            weights.push_back(std::fmod(100.0 * point.norm(), 10.0));
        vrk::CellSearchOptions options;
        options.progressed = [&](double share) { soFar.add(share); };
        const vrk::CellSearch search(options);
        const std::vector<LatticeCandidate> found = search.search(points, weights);
        ASSERT_FALSE(found.empty());
        EXPECT_TRUE(vrk::sameLattice(found.front().lattice.basis, crystal.basis, 0.03));
        EXPECT_LT(found.front().lattice.origin.norm(), 0.3);
        const auto add = [&](const vrk::CellSearchTrial& trial) {
            soFar.add(trial.minLength, trial.maxLength, trial.eps, trial.minPts, trial.reflections);
        };
        for (const LatticeCandidate& one : found) {
            soFar.addAll(one.lattice.basis.reshaped());
            soFar.addAll(one.lattice.origin);
            soFar.add(one.score.indexed, one.score.radius, one.score.chance, one.score.evidence);
            add(one.trial);
            if (const auto again = search.repeat(one, points, weights)) add(again->trial);
        }
        const std::optional<LatticeCandidate> again = search.repeat(found.front(), points, weights);
        ASSERT_TRUE(again);
        soFar.add(again->score.evidence);
        std::array<vrk::CellSearchOptions, 6> some;
        some[1].minLength = 25;
        some[2].maxLength = 20;
        some[3].eps = 0.4;
        some[4].minPts = 9;
        some[5].clustering = ClusteringMethod::FSC;
        for (const vrk::CellSearchOptions& fixed : some)
            add(vrk::CellSearch(fixed).firstTrial(points, weights));
    }
    EXPECT_NEAR(soFar.sum(), 124649.4099, 1e-3);
}

TEST(CellSteps, ClusterTheSameVectorsAgainAsIfForTheFirstTime) {
    std::mt19937 random(27);
    const Points points = pointsOf({Vector3d(9.0, 11.0, 13.0).asDiagonal()}, random);
    Parameter first, second;
    for (Parameter* parameter : {&first, &second}) {
        parameter->setMinLength(3.0);
        parameter->setMaxLength(24.0);
    }
    first.setDBSCANEps(0.7);
    second.setDBSCANEps(1.2);
    for (const ClusteringMethod method :
         {ClusteringMethod::DBSCAN, ClusteringMethod::DDSC, ClusteringMethod::FSC}) {
        const vrk::CellSteps fresh(points, second, method);
        vrk::CellSteps again(points, first, method);
        again.cluster(second);
        ASSERT_FALSE(fresh.clusters().empty());
        ASSERT_EQ(again.clusters().size(), fresh.clusters().size());
        for (std::size_t i = 0; i < fresh.clusters().size(); ++i) {
            EXPECT_EQ(again.clusters()[i]->getNumberOfPoints(), fresh.clusters()[i]->getNumberOfPoints());
            for (int axis = 0; axis < 3; ++axis)
                EXPECT_EQ(again.clusters()[i]->getCenterOfGrafity(axis),
                          fresh.clusters()[i]->getCenterOfGrafity(axis));
        }
    }
}

TEST(CellSearch, NoiseHasNoConvincingLattice) {
    std::mt19937 random(5);
    const Crystal crystal{.basis = Vector3d(14.0, 15.0, 17.0).asDiagonal(), .noise = 7.0};
    for (const LatticeCandidate& candidate : vrk::CellSearch().search(pointsOf(crystal, random), {}))
        EXPECT_LT(candidate.score.evidence, 60.0);
    EXPECT_TRUE(vrk::CellSearch().search(Points(11, Vector3d(1.0, 2.0, 3.0)), {}).empty());
    EXPECT_TRUE(vrk::CellSearch().search(Points(100, Vector3d(1.0, 2.0, 3.0)), {}).empty());
    // Nor is one found when the user stops the search.
    vrk::CellSearchOptions options;
    options.canceled = [] { return true; };
    const Crystal good{Vector3d(10.0, 11.0, 13.0).asDiagonal()};
    EXPECT_TRUE(vrk::CellSearch(options).search(pointsOf(good, random), {}).empty());
}

TEST(Lattice, TellsItsReducedCellWhereThereIsOne) {
    const Lattice lattice{Vector3d(10, 20, 25).asDiagonal(), Vector3d::Zero()};
    EXPECT_EQ(vrk::cellText(lattice, 1e8), "4.00 5.00 10.00  90.0 90.0 90.0");
    EXPECT_EQ(vrk::cellText(lattice, 0), "");
    EXPECT_EQ(vrk::cellText({Matrix3d::Zero(), Vector3d::Zero()}, 1e8), "");
}

TEST(LatticeScore, EvidenceIsTheLikelihoodRatio) {
    EXPECT_NEAR(vrk::evidenceOf(10, 10, 0.1), 10.0 * std::log(10.0), 1e-12);
    EXPECT_NEAR(vrk::evidenceOf(5, 10, 0.1), 5.0 * std::log(5.0) + 5.0 * std::log(0.5 / 0.9), 1e-12);
    for (const auto& [successes, trials, chance] :
         {std::tuple(1, 10, 0.1), std::tuple(0, 0, 0.1), std::tuple(5, 10, 0.0), std::tuple(5, 10, 1.0)})
        EXPECT_EQ(vrk::evidenceOf(successes, trials, chance), 0.0);
    // That all points lie in the greater part of the cell is none.
    Points between;
    for (int i = 1; i < 40; ++i)
        between.emplace_back(3.0 * i + 1.2, 0.0, 0.0);
    EXPECT_EQ(vrk::scoreLattice(between, {3.0 * Matrix3d::Identity(), Vector3d::Zero()}).evidence, 0.0);
}

TEST(LatticeScore, MultiplesAreSettledByThePoints) {
    std::mt19937 random(8);
    SoFar soFar;
    const Crystal crystal{.basis = Vector3d(8.0, 9.0, 12.0).asDiagonal(), .outliers = 0.2};
    const Points points = pointsOf(crystal, random);
    const LatticeScore right = vrk::scoreLattice(points, {crystal.basis, Vector3d::Zero()});
    Matrix3d centred;
    centred << 0.5, 0.0, 0.0, 0.5, 1.0, 0.0, 0.5, 0.0, 1.0;
    const std::pair<const char*, Matrix3d> cases[] = {
        {"the lattice itself", Matrix3d::Identity()},
        {"nodes between", Vector3d(0.5, 1.0, 1.0).asDiagonal()},
        {"two nodes between", Vector3d(1.0, 1.0 / 3.0, 1.0).asDiagonal()},
        {"nodes between on two axes", Vector3d(0.5, 1.0, 0.5).asDiagonal()},
        {"a node in the middle", centred},
        {"every second node", Vector3d(1.0, 1.0, 2.0).asDiagonal()},
        {"every third node", Vector3d(1.0, 3.0, 1.0).asDiagonal()},
    };
    for (const auto& [name, change] : cases) {
        SCOPED_TRACE(name);
        const Lattice start{crystal.basis * change, Vector3d::Zero()};
        if (!change.isIdentity()) {
            EXPECT_LT(vrk::scoreLattice(points, start).evidence, right.evidence);
        }
        const Lattice settled = vrk::settleMultiples(points, start);
        EXPECT_TRUE(vrk::sameLattice(settled.basis, crystal.basis, 0.03));
        soFar.addAll(settled.basis.reshaped());
        soFar.addAll(settled.origin);
    }
    EXPECT_NEAR(soFar.sum(), 209.018178, 1e-5);
    // Points in a plane determine no lattice.
    Points plane = points;
    for (Vector3d& point : plane)
        point[2] = 0.0;
    EXPECT_EQ(vrk::fitWithin(plane, {1.02 * crystal.basis, Vector3d::Zero()}, 1.5).basis,
              1.02 * crystal.basis);
}

// Nodes of a finer lattice must come from patterns all over the series.

/// An orthorhombic lattice whose a* lies along the beam at tilt 0, b* across the axis, c* along it.
Matrix3d upright() {
    Matrix3d basis;
    basis << 0, 10, 0, 0, 0, 8, 12, 0, 0;
    return basis;
}

double tiltOf(const Vector3d& p) {
    return std::atan(p.z() / p.x()) / vrk::kDegree;
}

/// Nodes as tilts of +-60 degrees show them; where `isOff`, by tilt in degrees, half of b* + c* beside their
/// place in the pattern.
Points seen(const Matrix3d& basis, double share, const std::function<bool(double)>& isOff) {
    std::mt19937 random(2);
    const Vector3d half = 0.5 * (basis.col(1) + basis.col(2));
    Points points = seenNodes(basis, {5, 80, 0.25}, random, [share](int, int, int) { return share; });
    for (Vector3d& p : points) {
        const double tilt = tiltOf(p) * vrk::kDegree;
        const double along = std::copysign(std::hypot(p.x(), p.z()), p.x()) + half.x();
        if (isOff(tilt / vrk::kDegree))
            p = Vector3d(along * std::cos(tilt), p.y() + half.y(), along * std::sin(tilt));
    }
    return points;
}

TEST(GhostNodes, MisplacedPatternsDoNotDoubleACell) {
    const auto never = [](double) { return false; };
    // A centred cell: every node of the coarse lattice and as many in between.
    Matrix3d centred = upright();
    centred.col(2) = 0.5 * (centred.col(1) + centred.col(2));
    Matrix3d tilted = Eigen::AngleAxisd(0.4, Vector3d(1, 1, 1).normalized()) * centred;
    const std::tuple<const char*, Points, Matrix3d> cases[] = {
        {"no ghosts", seen(upright(), 0.8, never), upright()},
        {"one zone", seen(upright(), 0.8, [](double t) { return std::abs(t) < 1; }), upright()},
        {"a few patterns", seen(upright(), 0.8, [](double t) { return t > 20 && t < 32; }), upright()},
        {"every third stretch of 5 degrees",
         seen(upright(), 0.8, [](double t) { return static_cast<int>(std::floor(t / 5)) % 3 == 0; }),
         upright()},
        {"a centred cell", seen(centred, 0.8, never), centred},
        {"a centred cell that lies askew", seen(tilted, 0.5, never), tilted},
    };
    for (const auto& [name, points, truth] : cases) {
        SCOPED_TRACE(name);
        // From the coarse lattice and from one that is too fine.
        Matrix3d coarse = truth, fine = truth;
        coarse.col(2) = 2 * truth.col(2) - truth.col(1);
        fine.col(2) = 0.5 * (truth.col(2) + truth.col(1));
        for (const Matrix3d& start : {truth, coarse, fine}) {
            const bool isTooCoarse = start == coarse && truth == upright();
            if (isTooCoarse) continue;  // half of the nodes are as good as any
            const vrk::Lattice found = vrk::settleMultiples(points, {start, Vector3d::Zero()});
            EXPECT_TRUE(vrk::sameLattice(found.basis, truth, 0.03)) << found.basis;
        }
    }
}

TEST(GhostNodes, AreSeenByTheNodesThatAreMissingAtTheirTilts) {
    const Lattice lattice{0.5 * upright(), Vector3d(7, -5, 9)};
    const auto nodes = [&](const std::function<bool(double)>& isOff) {
        Points points = seen(lattice.basis, 0.8, isOff);
        for (Vector3d& point : points)
            point += lattice.origin;
        return points;
    };
    const auto isOff = [](double t) { return std::abs(t - 9) < 4 || std::abs(std::abs(t) - 32) < 4; };
    Points on, ghosts;
    for (const Vector3d& point : nodes(isOff))
        (vrk::distanceToNode(point, lattice, lattice.basis.inverse()) < 1.2 ? on : ghosts).push_back(point);
    EXPECT_TRUE(vrk::areGhosts(ghosts, on, lattice));
    const Points all = nodes([](double) { return false; });
    EXPECT_FALSE(vrk::areGhosts(ghosts, all, lattice));
    // Close to the axis they have no tilt.
    EXPECT_FALSE(vrk::areGhosts(Points(50, lattice.origin + Vector3d(2.5, 10, 1.3)), all, lattice));
    // Few nodes tell nothing.
    Points few;
    std::ranges::copy_if(all, std::back_inserter(few),
                         [&](const Vector3d& p) { return (p - lattice.origin).norm() < 11; });
    EXPECT_FALSE(vrk::areGhosts(few, few, lattice));
    // Or by a narrow range of tilts, unless most others are there as well.
    const auto between = [&](double low, double high, double farther) {
        Points some;
        std::ranges::copy_if(all, std::back_inserter(some), [&](const Vector3d& p) {
            const double tilt = tiltOf(p - lattice.origin);
            return (tilt > low && tilt < high) || tilt < farther;
        });
        return some;
    };
    for (const auto& [high, others, areGhosts] : {std::tuple(41.0, all, true),
                                                  {46.0, all, false},
                                                  {34.0, between(20, 34, -57), false},
                                                  {20.0, all, false}})
        EXPECT_EQ(vrk::areGhosts(between(20, high, -90), others, lattice), areGhosts) << high;
}

}  // namespace
