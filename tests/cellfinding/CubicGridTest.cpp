#include "cellfinding/CubicGrid.h"

#include "PlainGrid.h"

namespace {

using namespace testing_support;
using TestPoint = ClusterPoint<double>;
using Grid = CubicGrid<TestPoint>;

TestPoint pointAt(const Coordinates& c) {
    return {c.data(), static_cast<unsigned char>(c.size()), short(7)};
}

CloudRun gridOver(const std::vector<Coordinates>& points, double min, double max, int edge) {
    const std::size_t dimension = points.front().size();
    return CloudRun(Cloud{points, Coordinates(dimension, min), Coordinates(dimension, max), edge, 0.0});
}

std::vector<int> placesOf(Grid& grid, const std::vector<TestPoint*>& found) {
    std::vector<int> places;
    for (const TestPoint* point : found)
        places.push_back(static_cast<int>(point - grid.getPoint(0)));
    return places;
}

TEST(CubicGridTest, AnswersAsTheWalkOverTheCubesDoes) {
    for (unsigned seed = 0; seed < 24; ++seed) {
        SCOPED_TRACE(seed);
        const Cloud cloud = randomCloud(seed);
        const PlainGrid plain(cloud.points, cloud.min, cloud.max, cloud.edge);
        Grid grid = *CloudRun(cloud).grid;
        ASSERT_EQ(grid.getNumberOfPoints(), static_cast<int>(cloud.points.size()));
        for (int i = 0; i < grid.getNumberOfPoints(); ++i) {
            const TestPoint expected = pointAt(plain.list()[static_cast<std::size_t>(i)]);
            ASSERT_TRUE(grid.getPoint(i)->isEqual(&expected));
            ASSERT_EQ(grid.getPoint(i)->getClusterID(), -1);
        }
        std::vector<Coordinates> queries(plain.list().begin(), plain.list().end());
        queries.push_back(Coordinates(cloud.min.size(), 15.0));
        queries.push_back(Coordinates(cloud.min.size(), 4.25));
        for (std::size_t q = 0; q < queries.size(); ++q) {
            const Coordinates& query = queries[q];
            const TestPoint point = pointAt(query);
            std::vector<TestPoint*> found;
            grid.getNeighborhood(&point, cloud.eps, &found);
            const std::vector<int> expected = plain.neighbours(query, cloud.eps);
            ASSERT_EQ(placesOf(grid, found), expected);
            ASSERT_EQ(grid.getSizeOfNeighborhood(&point, cloud.eps), static_cast<int>(expected.size()));
            for (const int k : {1, 7, 40, q % 40 ? 2 : 5000})
                ASSERT_EQ(grid.getSizeOfKNN(&point, k),
                          plain.kthDistance(query, static_cast<std::size_t>(k)));
        }
    }
}

TEST(CubicGridTest, KeepsOutsidePointsAsZerosAndSaysSo) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    VRKLogger::getInstance();  // speaks on the standard output when it is made
    const CloudRun run = gridOver({{500, 500, 500}, {nan, 1, 1}, {1e300, 0, 0}, {2, 2, 2}}, 0.0, 9.0, 3);
    EXPECT_EQ(run.spoken, "== -1\n== -1\n== -1\n");
    Grid& grid = *run.grid;
    EXPECT_EQ(grid.getPoint(0)->getData(0), 2.0);
    EXPECT_EQ(grid.getPoint(3)->getLength(), 0.0);
    EXPECT_EQ(grid.getSizeOfNeighborhood(grid.getPoint(3), 9.0), 1);
}

TEST(CubicGridTest, BoundsTheCubesForAnyLimits) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    RecordingLogObserver log;
    for (const auto& [min, max, cubes, edge] : {std::tuple{nan, 1.0, 0, 3},
                                                {5.0, -5.0, 0, 3},
                                                {-3000.0, 3000.0, 1000000000, 6},
                                                {-1e300, 1e300, 0, 1 << 30}}) {
        SCOPED_TRACE(max);
        log.messages.clear();
        const CloudRun run = gridOver({{1, 1, 1}, {2, 2, 2}}, min, max, 3);
        Grid& grid = *run.grid;
        EXPECT_EQ(grid.getEdgeLength(), edge);
        EXPECT_EQ(grid.getNumberOfCubes(), cubes);
        EXPECT_EQ(log.has("too many cubes of edge length 3", VRK::Warning), edge != 3);
        EXPECT_EQ(grid.getSizeOfNeighborhood(grid.getPoint(0), 5.0), cubes > 0 ? 2 : 0);
    }
}

TEST(CubicGridTest, FindsItsOwnLimitsAndHasNeighboursInTwoAndThreeDimensionsOnly) {
    for (const unsigned char dimension : std::vector<unsigned char>{1, 2, 3, 4}) {
        const double data[] = {-1.0, -2.0, -2.5, -3.0};
        TestPoint a(data, dimension, -1);
        const std::vector<TestPoint*> points{&a, nullptr};
        Grid grid(&points, 3);
        EXPECT_EQ(grid.getNumberOfCubes(), 1);
        EXPECT_EQ(grid.getNumberOfPoints(), 1);
        EXPECT_EQ(grid.getSizeOfNeighborhood(&a, 1.0), dimension == 2 || dimension == 3);
    }
    const std::vector<TestPoint*> none;
    EXPECT_EQ(Grid(&none, 3).getNumberOfPoints(), 0);
    Grid automatic = *gridOver({{1, 1, 1}}, -1.0, 2.0, 0).grid;
    EXPECT_EQ(automatic.getEdgeLength(), 8);
    EXPECT_EQ(automatic.getPoint(1), nullptr);
}

TEST(CubicGridTest, PrintsItsShape) {
    RecordingLogObserver log;
    gridOver({{1, 1, 1}}, -10.0, 10.0, 3);
    Cube(4, 9, 0).print();
    const char* rule = "------------------------------\n";
    EXPECT_TRUE(
        log.has(std::string(rule) + "CubicGrid\n" + rule +
                    "Dimension: 3\nAnzahl an Wuerfel: 343\nKantenlaenge: 3\nAnzahl an Punkten: 1\n---",
                VRK::Debug));
    EXPECT_TRUE(log.has("Indexbereich = [4, 9] - Kantenlaenge = 1", VRK::Normal));
    EXPECT_EQ(Cube().getNumberOfPoints(), 0);
}

}  // namespace
