#include "cellfinding/Cluster.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/ClusterPointDDSC.h"
#include "cellfinding/DiffVector2D.h"
#include "cellfinding/DiffVector3D.h"
#include "cellfinding/Line.h"
#include "support/Testing.h"

namespace {

constexpr double kLargestDouble = std::numeric_limits<double>::max();
constexpr double kSmallest = std::numeric_limits<double>::min();
constexpr double kPi = 3.14159265358979323846;

template <typename T = double>
Point<T> at(const std::vector<T>& c) {
    return {c.data(), static_cast<unsigned char>(c.size())};
}

PointSet<Point<double>> setOf(std::vector<Point<double>> points) {
    std::vector<Point<double>*> list;
    for (auto& point : points)
        list.push_back(&point);
    return PointSet<Point<double>>(&list);
}

/// Values that operations give and those they ought to give.
void check(const std::vector<std::tuple<const char*, double, double>>& cases) {
    for (const auto& [what, value, expected] : cases)
        EXPECT_DOUBLE_EQ(value, expected) << what;
}

TEST(PointTypesTest, PointsAnswerUnequalDimensionsWithAValue) {
    const auto a = at({3.0, 4.0});
    const auto b = at({1.0, 0.0, 0.0});
    const auto right = at({1.0, 0.0});
    const auto left = at({-1.0, 0.0});
    const auto third = at({1.0, 1.0, 1.0});
    auto scaled = third;
    scaled.multiply(3.3);
    auto large = at(std::vector<double>(255, 2.0));
    large = a;
    auto integers = at<int>({3, -4});
    integers.multiply(0.5);
    check({{"distance", a.distTo(&right), std::sqrt(20.0)},
           {"distance to another dimension", a.distTo(&b), 0.0},
           {"distance to raw of another dimension", a.distTo(b.getData(), 3), 0.0},
           {"product with another dimension", a.Dot(&b), kLargestDouble},
           {"angle with another dimension", a.calcAngle(&b), kLargestDouble},
           {"opposite", right.calcAngle(&left), kPi},
           {"parallel", third.calcAngle(&scaled), 0.0},
           {"length", a.getLength(), 5.0},
           {"beyond", a.getData(2), 0.0},
           {"assigned over 255 coordinates", large.getData(1), 4.0},
           {"truncated", double(integers.getData(1)), -2.0}});
    EXPECT_FALSE(a.isEqual(&b));
    EXPECT_TRUE(Point<double>(static_cast<unsigned short>(0))
                    .isEqual(std::make_unique<Point<double>>(nullptr).get()));
    ClusterPointDDSC<double> p(3, -1, 0);
    p.setSizeOfNeighbourhood(40000);
    EXPECT_EQ(p.getSizeOfNeighbourhood(), -25536);
    EXPECT_EQ(ClusterPointDDSC<double>(&p).getSizeOfNeighbourhood(), -25536);
}

TEST(PointTypesTest, SetsKnowTheirStatistics) {
    auto set = setOf({at({-1.0, -2.0, -3.0}), at({-4.0, -5.0, -6.0})});
    check({{"minimum", set.getMin(2), -6.0},
           {"maximum below 0", set.getMax(0), kSmallest},
           {"centre", set.getCenterOfGrafity(1), -3.5},
           {"minimum out of range", set.getMin(5), kSmallest},
           {"maximum out of range", set.getMax(5), kLargestDouble},
           {"centre out of range", set.getCenterOfGrafity(-1), kLargestDouble},
           {"moment out of range", set.getMomentsOfInertia(3), kLargestDouble},
           {"axis out of range", set.getMassCentroidAxis(0, 3), kLargestDouble}});

    auto added = at({4.0, 1.0, 0.0});
    EXPECT_TRUE(set.addPoint(&added));
    const auto whole = setOf({at({-1.0, -2.0, -3.0}), at({-4.0, -5.0, -6.0}), added});
    check({{"centre", set.getCenterOfGrafity(2), whole.getCenterOfGrafity(2)},
           {"moment", set.getMomentsOfInertia(0), whole.getMomentsOfInertia(0)},
           {"maximum", set.getMax(0), 4.0}});
    const PointSet<Point<double>> copy = set;
    EXPECT_TRUE(set.deletePoint(&added));
    EXPECT_FALSE(set.deletePoint(&added));
    EXPECT_EQ(set.getMax(0), kSmallest);
    EXPECT_EQ(copy.getNumberOfPoints(), 3);

    const auto flat = setOf({at({0.0, 0.0}), at({2.0, 0.0})});
    check({{"larger moment", flat.getMomentsOfInertia(0), 1.0},
           {"smaller moment", flat.getMomentsOfInertia(1), 0.0}});
}

TEST(PointTypesTest, ElongatedSetsAreLines) {
    const auto row =
        setOf({at({0.0, 1.0, 1.0}), at({1.0, 1.0, 1.0}), at({2.0, 1.0, 1.0}), at({5.0, 1.0, 1.0})});
    Line<double> line(3);
    EXPECT_EQ(line.getVec(2), 1.0);
    ASSERT_TRUE(row.getLine(&line));
    check({{"point", line.getPoint(0), 2.0},
           {"direction", std::abs(line.getVec(0)), 1.0},
           {"across", line.getVec(1), 0.0}});
    EXPECT_FALSE(row.isSpherical(10));
    EXPECT_TRUE(setOf({at({1.0, 0.0}), at({-1.0, 0.0}), at({0.0, 1.0}), at({0.0, -1.0})}).isSpherical(1));

    const double zero[] = {0, 0, 0};
    const double along[] = {2, 0, 0};
    const Line<double> axis(zero, along, 3);
    const auto q = at({1.0, 1.0, 0.0});
    const std::unique_ptr<Point<double>> foot(axis.getFootOfAPerpendicular(&q));
    check({{"foot", foot->getData(0), 1.0},
           {"height", foot->getData(1), 0.0},
           {"distance", axis.getDistTo(&q), 1.0}});
    const double twice[] = {4, 0, 0};
    const Line<double> sameLine(zero, twice, 3);
    EXPECT_FALSE(axis.equalTo(&sameLine));
    const Line<double> copy = axis;
    EXPECT_TRUE(axis.equalTo(&copy));
}

TEST(PointTypesTest, ClustersKeepTheirInnerPoints) {
    std::vector<Point<double>> points{at({9.0, 0.0}), at({0.0, 1.0}), at({0.0, 0.0}), at({-9.0, 3.0}),
                                      at({1.0, -9.0})};
    std::vector<Point<double>*> list;
    for (auto& point : points)
        list.push_back(&point);
    RecordingLogObserver log;
    Cluster<Point<double>> cluster(&list, -3);
    EXPECT_TRUE(log.has("ClusterID has to be positiv. Use now clusterID 0.", VRK::Warning));
    cluster.setClusterID(-3);
    EXPECT_EQ(cluster.getClusterID(), 0);
    for (const double fraction : {1.0, -0.1, std::nan("")})
        EXPECT_FALSE(cluster.refineCluster(fraction));
    EXPECT_EQ(cluster.getNumberOfPoints(), 5);
    EXPECT_TRUE(cluster.refineCluster(0.5));
    ASSERT_EQ(cluster.getNumberOfPoints(), 2);
    EXPECT_TRUE(cluster.getPointAt(0)->isEqual(list[2]));
    EXPECT_TRUE(cluster.getPointAt(1)->isEqual(list[1]));
}

TEST(PointTypesTest, ReportWhatTheyCannotUse) {
    const auto flat = at({1.0, 2.0});
    const auto solid = at({1.0, 2.0, 3.0});
    std::vector<Point<double>*> empty;
    RecordingLogObserver log;
    const std::vector<std::pair<const char*, std::function<void()>>> cases{
        {"No points given.", [&] { PointSet<Point<double>> set(&empty); }},
        {"Not all points are of the same dimension.",
         [&] {
             setOf({solid, flat});
         }},
        {"Dimension 0 not valid.", [] { Line<float> line(0); }},
        {"Point and vec must be of the same dimension.", [&] { Line<double> line(&flat, &solid); }},
        {"Dimension are not the same", [&] { EXPECT_EQ(Line<double>(3).getDistTo(&flat), 0.0); }}};
    for (const auto& [text, action] : cases) {
        action();
        EXPECT_EQ(log.count(text, VRK::Error), 1) << text;
    }
    ClusterPointDDSC<float>(2, 4, 7).print();
    solid.printCoefficientsWithLength();
    EXPECT_TRUE(log.has("( 0, 0 ) - clusterID = 4 - nSize = 7", VRK::Normal));
    EXPECT_TRUE(log.has("( 1, 2, 3 ) - length = 3.74", VRK::Normal));
}

TEST(PointTypesTest, DifferenceVectorsKeepTheirLength) {
    DiffVector2D a(3, 4);
    DiffVector3D b(1, 2, 2);
    const DiffVector3D c(0, 3, 4);
    check({{"plane", a.getLength(), 5}, {"space", b.getLength(), 3}, {"beyond", a.getValue(2), 0}});
    EXPECT_TRUE(DiffVector::compareLength(&b, &c));
    EXPECT_FALSE(DiffVector::compareLength(&c, &b));
    EXPECT_FALSE(DiffVector::compareLength(&b, &a));
    b.setValue(2, std::sqrt(20.0));
    b.setValue(3, 7.0);
    EXPECT_TRUE(DiffVector::compareLength(&b, &c));
    EXPECT_TRUE(DiffVector::compareLength(&c, &b));
    b.setValues(2, 3, 6);
    check({{"reset", b.getLength(), 7}, {"z", b.getValue(2), 6}, {"dimension", double(b.getDimension()), 3}});
}

}  // namespace
