#include "pipeline/latticesearch/PeakMerging.h"

#include "latticesearch/SeenNodes.h"
#include "support/SoFar.h"

namespace {

using Eigen::Vector3d;
using vrk::Points;

constexpr double kMergedReach = 90.0;

/// Nodes of an orthogonal lattice about the origin, some of them missing, each with a small error.
Points nodesOf(const Vector3d& edges, std::mt19937& random) {
    const Eigen::Quaterniond turn(0.9, 0.2, -0.3, 0.1);
    return seenNodes(turn.normalized().toRotationMatrix() * edges.asDiagonal(),
                     {8.0, kMergedReach, 0.1, false}, random, [](int, int, int) { return 0.6; });
}

/// Every node as some frames show it: turned about y, each with an error of its own.
Points onFrames(const Points& nodes, double step, int most, std::mt19937& random) {
    std::uniform_int_distribution<int> times(1, most);
    std::normal_distribution<double> error(0.0, 0.08);
    Points peaks;
    for (const Vector3d& node : nodes) {
        const int count = times(random);
        for (int i = 0; i < count; ++i) {
            const double angle = (i - 0.5 * (count - 1)) * step * std::acos(-1.0) / 180.0;
            peaks.push_back(Eigen::AngleAxisd(angle, Vector3d::UnitY()) * node +
                            Vector3d(error(random), error(random), error(random)));
        }
    }
    return peaks;
}

TEST(PeakMerging, PutsThePeaksOfAReflectionTogether) {
    SoFar soFar;
    // Degrees between frames, and how many show a node at most.
    for (const auto& [step, most] : {std::pair(0.1, 12), {0.25, 6}, {0.5, 5}, {1.0, 3}}) {
        SCOPED_TRACE(step);
        std::mt19937 random(3);
        const Points nodes = nodesOf({11.0, 13.0, 16.0}, random);
        Points points = onFrames(nodes, step, most, random);
        const double distance = vrk::mergingDistance(points);
        ASSERT_GT(distance, 0.0);
        std::vector<double> weights;
        vrk::mergePeaks(points, weights, distance);
        EXPECT_EQ(weights.size(), points.size());
        soFar.add(distance);
        for (const Vector3d& point : points)
            soFar.addAll(point);
        EXPECT_NEAR(static_cast<double>(points.size()), static_cast<double>(nodes.size()),
                    0.03 * static_cast<double>(nodes.size()));
    }
    EXPECT_NEAR(soFar.sum(), 2025.02364, 1e-4);
}

TEST(PeakMerging, LeavesListsAloneThatAreMerged) {
    const Vector3d cells[] = {{11, 13, 16}, {20, 18, 3.5}, {25, 4, 4}, {14, 14, 14}};
    for (const Vector3d& edges : cells) {
        std::mt19937 random(5);
        Points points = nodesOf(edges, random);
        EXPECT_EQ(vrk::mergingDistance(points), 0.0) << edges.transpose();
        std::uniform_real_distribution<double> place(-kMergedReach, kMergedReach);
        for (std::size_t i = points.size() / 3; i > 0; --i)
            points.emplace_back(place(random), place(random), place(random));
        EXPECT_EQ(vrk::mergingDistance(points), 0.0) << edges.transpose();
    }
    // Nothing to go by, and what must not take for ever.
    Points crowd(20000, Vector3d(1.0, 2.0, 3.0));
    EXPECT_EQ(vrk::mergingDistance(Points(crowd.begin(), crowd.begin() + 40)), 0.0);
    EXPECT_EQ(vrk::mergingDistance(crowd), 0.0);
    for (std::size_t i = 0; i < 9000; ++i)
        crowd[i] = Vector3d(10.0 * static_cast<double>(i % 30), 10.0 * static_cast<double>(i / 30 % 30),
                            10.0 * static_cast<double>(i / 900));
    EXPECT_EQ(vrk::mergingDistance(crowd), 0.0);
}

TEST(PeakMerging, WeighsWithTheIntensities) {
    Points points = {{0, 0, 0},   {9, 0, 0},       {1, 0, 0},      {1.9, 0, 0},
                     {9, 0.5, 0}, {4.9, 4.9, 4.9}, {5.1, 5.1, 5.1}};
    std::vector<double> weights = {3.0, 0.0, 1.0, 0.0, 0.0, 1.0, 1.0};
    vrk::mergePeaks(points, weights, 1.0);
    ASSERT_EQ(points.size(), 3U);
    EXPECT_EQ(points[0], Vector3d(0.25, 0, 0));
    EXPECT_EQ(points[1], Vector3d(9, 0.25, 0));
    EXPECT_LT((points[2] - Vector3d(5, 5, 5)).norm(), 1e-12);
    EXPECT_EQ(weights, (std::vector<double>{4.0, 0.0, 2.0}));
}

}  // namespace
