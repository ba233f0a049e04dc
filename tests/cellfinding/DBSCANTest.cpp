#include "cellfinding/DBSCAN.h"

#include "PlainGrid.h"

namespace {

using namespace testing_support;
using DbscanPoint = ClusterPoint<double>;

std::vector<int> labelsOf(CloudRun& run, double eps, int minPts) {
    DBSCAN::cluster(run.grid.get(), eps, minPts, &run.clusters, &run.noise);
    return run.labels();
}

TEST(DBSCANTest, LabelsAsGrowingOneNeighbourhoodAfterTheOther) {
    int atOnce = 0;
    int clusters = 0;
    for (unsigned seed = 0; seed < 90; ++seed) {
        const Cloud cloud = randomCloud(seed);
        const PlainGrid plain(cloud.points, cloud.min, cloud.max, cloud.edge);
        for (const int minPts : {1, 3, 6, 15}) {
            SCOPED_TRACE(testing::Message() << seed << ", at least " << minPts);
            CloudRun clustering(cloud);
            ASSERT_EQ(labelsOf(clustering, cloud.eps, minPts),
                      plain.cluster(cloud.eps, static_cast<std::size_t>(minPts)));
            atOnce += clustering.grid->coversRadius(cloud.eps);

            ASSERT_TRUE(clustering.agrees());
            clusters += static_cast<int>(clustering.clusters.size());
        }
    }
    EXPECT_GT(atOnce, 90);
    EXPECT_LT(atOnce, 270);
    EXPECT_GT(clusters, 1000);
}

TEST(DBSCANTest, RefusesBadParameters) {
    const Cloud cloud{{{1, 1, 1}}, {-6, -6, -6}, {6, 6, 6}, 3, 0};
    const std::vector<DbscanPoint*> none;
    CubicGrid<DbscanPoint> empty(&none, 3);
    RecordingLogObserver log;
    CloudRun c(cloud);
    auto* const clusters = &c.clusters;
    auto* const noise = &c.noise;
    labelsOf(c, 1.0, 2);
    ASSERT_EQ(noise->size(), 1U);
    auto* const grid = c.grid.get();
    DBSCAN::cluster(nullptr, 1.0, 1, clusters, noise);
    DBSCAN::cluster(grid, 0.0, 1, clusters, noise);
    DBSCAN::cluster(grid, NAN, 1, clusters, noise);
    DBSCAN::cluster(grid, 1.0, 0, clusters, noise);
    DBSCAN::cluster(grid, 1.0, 1, nullptr, noise);
    DBSCAN::cluster(grid, 1.0, 1, clusters, nullptr);
    DBSCAN::cluster(&empty, 1.0, 1, clusters, noise);
    EXPECT_EQ(log.count("Parameter for DBSCAN are not correct.", VRK::Error), 7);
    EXPECT_EQ(noise->size(), 1U);
}

TEST(DBSCANTest, EndsWithTheLastLabelThatFits) {
    Cloud cloud{{}, {0, 0}, {2000, 2000}, 3, 0};
    for (int i = 0; i < 33000; ++i)
        cloud.points.push_back({i % 200 * 10.0 + 5.0, i / 200 * 10.0 + 5.0});
    RecordingLogObserver log;
    CloudRun clustering(cloud);
    const std::vector<int> labels = labelsOf(clustering, 1.0, 1);
    EXPECT_TRUE(log.has("More clusters than labels", VRK::Error));
    EXPECT_EQ(clustering.clusters.size(), 32767U);
    EXPECT_EQ(std::count(labels.begin(), labels.end(), 0), 33000 - 32767);
    EXPECT_EQ(*std::min_element(labels.begin(), labels.end()), 0);
}

}  // namespace
