// The lattice of a second crystal in the reflections that a first one leaves over.
#include "pipeline/latticesearch/FurtherLattice.h"

#include <Eigen/LU>

#include "latticesearch/SeenNodes.h"
#include "pipeline/base/Angle.h"
#include "pipeline/latticesearch/PointsOnNodes.h"
#include "support/SoFar.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::Lattice;
using vrk::Points;

Matrix3d triclinic() {
    Matrix3d basis;
    basis << 11, 2, -1, 0, 13, 3, 0, 0, 15;
    return basis;
}

Matrix3d turned(const Matrix3d& basis, double degrees) {
    return Eigen::AngleAxisd(degrees * vrk::kDegree, Vector3d(1, 2, -1).normalized()).toRotationMatrix() *
           basis;
}

/// A share of the nodes within 75 voxels, blurred, outside of a wedge.
void add(Points& points, const Matrix3d& basis, double share, std::mt19937& random) {
    for (const Vector3d& point :
         seenNodes(basis, {6, 75, 0.3}, random, [share](int, int, int) { return share; }))
        points.push_back(point);
}

/// One point after the other, by the function that rounds.
int plainCount(const Lattice& lattice, const Points& points, double radius, const Matrix3d& back,
               std::size_t from, std::size_t to) {
    int within = 0;
    for (std::size_t i = from; i < to; ++i) {
        const Vector3d index = lattice.basis.inverse() * (back * points[i]);
        within += (lattice.basis * (index - Vector3d(index.array().round()))).norm() <= radius;
    }
    return within;
}

TEST(PointsOnNodes, CountsAsOnePointAfterTheOther) {
    std::mt19937 random(11);
    std::uniform_real_distribution<double> place(-80, 80), angle(-180, 180), edge(2, 20);
    int total = 0;
    for (int round = 0; round < 200; ++round) {
        Lattice lattice;
        lattice.basis = triclinic() * (edge(random) / 10);
        Points points;
        for (int i = 0; i < 103; ++i)
            points.push_back({place(random), place(random), place(random)});
        const double radius = 0.3 * lattice.shortestEdge();
        const vrk::PointsOnNodes count(lattice, points, radius);
        const Matrix3d back = turned(Matrix3d::Identity(), angle(random));
        for (const auto& [from, to] : {std::pair<std::size_t, std::size_t>{0, 103}, {5, 17}, {40, 40}}) {
            const int plain = plainCount(lattice, points, radius, back, from, to);
            EXPECT_EQ(count.within(back, from, to), plain) << round;
            total += plain;
        }
    }
    EXPECT_GT(total, 1000);
}

TEST(FurtherLattice, FindsAnotherCrystalAndNothingElse) {
    SoFar soFar;
    const Matrix3d first = triclinic();
    Matrix3d other;
    other << 9, 0, 1, 1, 16, 0, 0, 2, 12;
    Matrix3d finer = first, finest = first;
    finer.col(0) /= 2;
    finest.col(0) /= 3;
    const std::tuple<const char*, Matrix3d, double, int, bool, bool> cases[] = {
        {"the same cell, turned", turned(first, 70), 0.6, 60, true, true},
        {"few of its reflections", turned(first, 70), 0.1, 20, true, true},
        {"split", turned(first, 4), 0.6, 60, true, true},
        {"another cell", other, 0.6, 60, true, false},
        {"one among many strays", turned(first, 70), 0.03, 400, false, false},
        {"nodes of a superlattice", finer, 0.6, 0, false, false},
        {"nodes of one of thirds", finest, 0.6, 0, false, false},
        {"strays alone", first, 0, 300, false, false},
    };
    for (const auto& [name, second, share, strays, isFound, isSameCell] : cases) {
        SCOPED_TRACE(name);
        std::mt19937 random(8);
        std::uniform_real_distribution<double> anywhere(-60, 60);
        Points all, left;
        add(all, second, share, random);
        const Lattice known{first, Vector3d::Zero(), 5e7};
        const Matrix3d inverse = first.inverse();
        for (const Vector3d& point : all)
            if (vrk::distanceToNode(point, known, inverse) > 1.3) left.push_back(point);
        for (int i = 0; i < strays; ++i)
            left.emplace_back(anywhere(random), anywhere(random), anywhere(random));
        const vrk::CellSearch search;
        const auto found =
            vrk::findFurtherLattice(left, std::vector<double>(left.size(), 1), {{known}}, &search);
        ASSERT_EQ(found.has_value(), isFound);
        if (!found) continue;
        EXPECT_EQ(found->sameCell, isSameCell);
        EXPECT_TRUE(vrk::sameLattice(found->candidate.lattice.basis, vrk::reduced(second), 0.03));
        EXPECT_EQ(found->candidate.lattice.pixelSize, 5e7);
        soFar.addAll(found->candidate.lattice.basis.reshaped());
        soFar.add(found->candidate.score.evidence, found->candidate.score.indexed);
        const bool alone = !vrk::findFurtherLattice(left, {}, {{known}}, nullptr);
        EXPECT_EQ(alone, !isSameCell) << "the cell of the first alone";
    }
    EXPECT_NEAR(soFar.sum(), 6334.01942, 1e-4);
}

TEST(FurtherLattice, APartOfASplitCrystalStandsOutFromTheMean) {
    const auto partOf = [](double half) {
        std::mt19937 random(3);
        Points points;
        add(points, turned(triclinic(), half), 0.5, random);
        if (half > 0) add(points, turned(triclinic(), -half), 0.5, random);
        return vrk::partOfSplit({triclinic(), Vector3d::Zero()}, points);
    };
    const std::optional<Lattice> part = partOf(1.5);
    ASSERT_TRUE(part);
    EXPECT_NEAR(*vrk::turnBetween(triclinic(), part->basis), 1.5, 0.2);
    SoFar soFar;
    soFar.addAll(part->basis.reshaped());
    EXPECT_NEAR(soFar.sum(), 44.9174065, 1e-6);
    EXPECT_FALSE(partOf(0));
}

TEST(FurtherLattice, TurnsAreTheSmallestOfAllEquivalents) {
    const Matrix3d cubic = 10 * Matrix3d::Identity();
    const auto about = [](double degrees) {
        return Eigen::AngleAxisd(degrees * vrk::kDegree, Vector3d::UnitZ()).toRotationMatrix();
    };
    EXPECT_NEAR(*vrk::turnBetween(cubic, about(87) * cubic), 3, 1e-6);
    EXPECT_NEAR(*vrk::turnBetween(triclinic(), turned(triclinic(), 70)), 70, 1e-6);
    EXPECT_FALSE(vrk::turnBetween(cubic, triclinic()));
}

}  // namespace
