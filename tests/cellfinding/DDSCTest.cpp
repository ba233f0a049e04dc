#include "cellfinding/DDSC.h"

#include <map>

#include "Clustered.h"
#include "PlainGrid.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;
using DdscPoint = ClusterPointDDSC<double>;

struct DdscRun : Clustered<DdscPoint> {
    explicit DdscRun(unsigned seed = 1) { random.seed(seed); }
    /// x in [from, to], y and z over ten units.
    void addSlab(int count, double from, double to) { addBox(count, {from, -5.0, -5.0}, {to, 5.0, 5.0}); }
    void run(double eps, int minPts, double alpha) {
        makeGrid();
        DDSC::clustering(grid.get(), eps, minPts, alpha, &clusters, &noise);
    }
};

TEST(DDSCTest, KeepsTouchingGroupsOfDifferentDensityApart) {
    DdscRun two;
    two.addSlab(8000, -10.0, 0.0);
    two.addSlab(2000, 0.0, 10.0);
    two.run(2.0, 20, 2.0);
    ASSERT_EQ(two.clusters.size(), 2U);
    std::map<std::pair<bool, int>, int> counts;
    for (const DdscPoint* point : *two.grid->getPoints())
        ++counts[{point->getData(0) < 0.0, point->getClusterID()}];
    const int dense = counts[{true, 1}] > counts[{true, 2}] ? 1 : 2;
    EXPECT_GT(counts[std::make_pair(true, dense)], 7600);
    EXPECT_GT(counts[std::make_pair(false, 3 - dense)], 1600);
}

// A point outside of the grid keeps neighbourhoods from being what distances say, so that they are asked for
// one after the other. All others are away from the origin, where it stands in the list.
TEST(DDSCTest, LabelsAsAskingForOneNeighbourhoodAfterTheOther) {
    SoFar soFar;
    for (unsigned seed = 0; seed < 60; ++seed) {
        Cloud cloud = randomCloud(2 * seed);
        const double shrink = 1.0 + seed % 4;
        const double alpha = std::array{1.1, 2.0, 5.0}[seed / 4 % 3];
        for (const int minPts : {2, 5, 12}) {
            SCOPED_TRACE(testing::Message() << seed << ", at least " << minPts);
            DdscRun fast, slow;
            for (DdscRun* c : {&fast, &slow}) {
                for (Coordinates p : cloud.points) {
                    for (double& x : p)
                        x /= shrink;
                    p[0] += 40.0;
                    c->add(p);
                }
            }
            slow.add(Coordinates(cloud.min.size(), 1000.0));
            testing::internal::CaptureStdout();
            for (DdscRun* c : {&fast, &slow}) {
                c->makeGrid(-12.0, 60.0, cloud.edge);
                DDSC::clustering(c->grid.get(), cloud.eps, minPts, alpha, &c->clusters, &c->noise);
            }
            testing::internal::GetCapturedStdout();
            ASSERT_EQ(fast.grid->coversRadius(cloud.eps), !slow.grid->coversRadius(cloud.eps));
            for (int i = 0; i < fast.grid->getNumberOfPoints(); ++i) {
                const DdscPoint* one = fast.grid->getPoint(i);
                const DdscPoint* other = slow.grid->getPoint(i);
                ASSERT_EQ(one->getClusterID(), other->getClusterID()) << i;
                ASSERT_EQ(one->getSizeOfNeighbourhood(), other->getSizeOfNeighbourhood()) << i;
                ASSERT_EQ(one->getDistToCurrentPoint(), other->getDistToCurrentPoint()) << i;
                soFar.add(one->getClusterID(), one->getSizeOfNeighbourhood());
            }
        }
    }
    EXPECT_NEAR(soFar.sum(), 3252557.57, 1e-1);
}

// A point that sees the cluster's end only is rim as long as no more than a sixth of its neighbours, those
// being in three dimensions, lies beyond.
TEST(DDSCTest, TakesRimPointsThatDoNotReachOn) {
    for (const int beyond : {0, 1, 2}) {
        SCOPED_TRACE(beyond);
        DdscRun c;
        for (int i = 0; i <= 20; ++i)
            c.add({1.0 + 0.1 * i, 0.0, 0.0});
        c.add({-1.15, 0.0, 0.0});  // sees four of them
        for (int i = 0; i < beyond; ++i)
            c.add({-3.6 - 0.01 * i, 0.0, 0.0});
        c.run(2.5, 5, 2.0);
        ASSERT_EQ(c.clusters.size(), 1U);
        EXPECT_EQ(c.clusters[0]->getNumberOfPoints(), beyond < 2 ? 22 : 21);
    }
}

TEST(DDSCTest, RepairsParametersAndReportsWhatItCannotRepair) {
    RecordingLogObserver log;
    DdscRun c;
    c.addSlab(1, 0.0, 1.0);
    c.run(3.0, 60, 2.0);
    EXPECT_TRUE(log.has("Not enough points given for DDSC clustering.", VRK::Error));
    DDSC::clustering(nullptr, 3.0, 60, 2.0, &c.clusters, &c.noise);
    EXPECT_TRUE(log.has("No data given for DDSC clustering.", VRK::Error));
    c.addSlab(9, 0.0, 1.0);
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
