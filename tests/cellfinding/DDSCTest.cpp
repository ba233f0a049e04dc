#include "cellfinding/DDSC.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <memory>
#include <random>

#include "support/RecordingLogObserver.h"

namespace {

using TestPoint = ClusterPointDDSC<double>;

struct Clustering {
    std::vector<std::unique_ptr<TestPoint>> points;
    std::unique_ptr<CubicGrid<TestPoint>> grid;
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;

    Clustering() = default;
    Clustering(const Clustering&) = delete;
    Clustering& operator=(const Clustering&) = delete;
    ~Clustering() {
        for (auto* cluster : clusters)
            delete cluster;
        for (auto* point : noise)
            delete point;
    }
    /// Scatters points evenly: x in [from, to], y and z over ten units.
    void addBox(std::mt19937& random, int count, double from, double to) {
        std::uniform_real_distribution<> x(from, to);
        std::uniform_real_distribution<> side(-5.0, 5.0);
        for (int i = 0; i < count; ++i) {
            const double data[] = {x(random), side(random), side(random)};
            points.push_back(std::make_unique<TestPoint>(data, static_cast<unsigned char>(3), short(-1), -1));
        }
    }
    void run(double eps, int minPts, double alpha) {
        std::vector<TestPoint*> pointers;
        for (const auto& point : points)
            pointers.push_back(point.get());
        grid = std::make_unique<CubicGrid<TestPoint>>(&pointers, 3);
        DDSC::clustering(grid.get(), eps, minPts, alpha, &clusters, &noise);
    }
};

TEST(DDSCTest, KeepsAnEvenGroupWholeAndTouchingGroupsOfDifferentDensityApart) {
    for (unsigned seed = 0; seed < 2; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Clustering even;
        even.addBox(random, 4000, -5.0, 5.0);
        even.run(1.8, 30, 2.0);
        ASSERT_EQ(even.clusters.size(), 1U);
        EXPECT_GT(even.clusters[0]->getNumberOfPoints(), 3900);

        Clustering two;
        two.addBox(random, 8000, -10.0, 0.0);
        two.addBox(random, 2000, 0.0, 10.0);
        two.run(2.0, 20, 2.0);
        ASSERT_EQ(two.clusters.size(), 2U);
        std::map<std::pair<bool, int>, int> counts;
        for (const TestPoint* point : *two.grid->getPoints())
            ++counts[{point->getData(0) < 0.0, point->getClusterID()}];
        const int dense = counts[{true, 1}] > counts[{true, 2}] ? 1 : 2;
        EXPECT_GT(counts[std::make_pair(true, dense)], 7600);
        EXPECT_GT(counts[std::make_pair(false, 3 - dense)], 1600);
    }
}

TEST(DDSCTest, KeepsALatticeWholeAndGivesEveryPointALabel) {
    Clustering c;
    for (int i = 0; i < 1000; ++i) {
        const double data[] = {i % 10 - 4.5, i / 10 % 10 - 4.5, i / 100 - 4.5};
        c.points.push_back(std::make_unique<TestPoint>(data, static_cast<unsigned char>(3), short(5), 4));
    }
    c.run(1.9, 10, 2.0);
    ASSERT_EQ(c.clusters.size(), 1U);
    EXPECT_EQ(c.clusters[0]->getNumberOfPoints() + static_cast<int>(c.noise.size()), 1000);
    EXPECT_GT(c.clusters[0]->getNumberOfPoints(), 900);
}

// A point that sees the cluster's end only is rim as long as no more than a sixth of its neighbours, those
// being in three dimensions, lies beyond.
TEST(DDSCTest, TakesRimPointsThatDoNotReachOn) {
    for (const int beyond : {0, 1, 2}) {
        SCOPED_TRACE(beyond);
        Clustering c;
        const auto add = [&c](double x) {
            const double data[] = {x, 0.0, 0.0};
            c.points.push_back(
                std::make_unique<TestPoint>(data, static_cast<unsigned char>(3), short(-1), -1));
        };
        for (int i = 0; i <= 20; ++i)
            add(1.0 + 0.1 * i);
        add(-1.15);  // sees four of them
        for (int i = 0; i < beyond; ++i)
            add(-3.6 - 0.01 * i);
        c.run(2.5, 5, 2.0);
        ASSERT_EQ(c.clusters.size(), 1U);
        EXPECT_EQ(c.clusters[0]->getNumberOfPoints(), beyond < 2 ? 22 : 21);
    }
}

TEST(DDSCTest, RepairsParametersAndReportsWhatItCannotRepair) {
    RecordingLogObserver log;
    Clustering c;
    std::mt19937 random(1);
    c.addBox(random, 1, 0.0, 1.0);
    c.run(3.0, 60, 2.0);
    EXPECT_TRUE(log.has("Not enough points given for DDSC clustering.", VRK::Error));
    DDSC::clustering(nullptr, 3.0, 60, 2.0, &c.clusters, &c.noise);
    EXPECT_TRUE(log.has("No data given for DDSC clustering.", VRK::Error));
    c.addBox(random, 9, 0.0, 1.0);
    c.run(-1.0, 1, 0.5);
    for (const char* text : {"Parameter eps must be positiv. Use default parameter now.",
                             "Parameter minPts must be bigger then 1. Use default parameter now.",
                             "Parameter alpha must be bigger then 1. Use default parameter now."})
        EXPECT_EQ(log.count(text, VRK::Warning), 1);
    EXPECT_EQ(c.noise.size(), 10U);
    DDSC::clustering(c.grid.get(), 3.0, 60, 2.0, nullptr, &c.noise);
    DDSC::clustering(c.grid.get(), 3.0, 60, 2.0, &c.clusters, nullptr);
    EXPECT_TRUE(log.has("No cluster vector given for DDSC clustering.", VRK::Error));
    EXPECT_TRUE(log.has("No noise vector given for DDSC clustering.", VRK::Error));
}

}  // namespace
