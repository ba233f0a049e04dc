#include "cellfinding/RANSAC.h"

#include "Clustered.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using Coordinates = std::vector<double>;

/// Points, their uncertainties and the pointers that the fit takes.
struct Cloud {
    std::vector<std::unique_ptr<Point<double>>> owned;
    std::vector<Point<double>*> points;
    std::vector<double> uncertainties;

    void add(const Coordinates& c, double uncertainty) {
        owned.push_back(std::make_unique<Point<double>>(c.data(), static_cast<unsigned char>(c.size())));
        points.push_back(owned.back().get());
        uncertainties.push_back(uncertainty);
    }
    /// Points start + t direction, t from -1 to 1, each off by its own uncertainty.
    void addLine(std::mt19937& random, int count, const Coordinates& start, const Coordinates& direction) {
        std::uniform_real_distribution<> along(-1.0, 1.0);
        std::uniform_real_distribution<> uncertainty(0.05, 0.5);
        std::normal_distribution<> normal;
        for (int i = 0; i < count; ++i) {
            const double t = along(random), sigma = uncertainty(random);
            Coordinates c = start;
            for (std::size_t k = 0; k < c.size(); ++k)
                c[k] += t * direction[k] + sigma * normal(random);
            add(c, sigma);
        }
    }
    void addNoise(std::mt19937& random, int count, std::size_t dimension) {
        std::uniform_real_distribution<> anywhere(-30.0, 30.0);
        for (int i = 0; i < count; ++i) {
            Coordinates c(dimension);
            for (double& x : c)
                x = anywhere(random);
            add(c, 0.3);
        }
    }
    std::vector<RANSAC::FittedLine> fit(const RANSAC::Settings& settings) const {
        std::vector<RANSAC::FittedLine> lines;
        EXPECT_TRUE(RANSAC::fitLines(&points, &uncertainties, settings, &lines));
        return lines;
    }
};

double angleBetween(const Line<double>& line, const Coordinates& direction) {
    const Point<double> v(direction.data(), static_cast<unsigned char>(direction.size()));
    const double angle = line.getVec()->calcAngle(&v);
    return std::min(angle, std::acos(-1.0) - angle);
}

TEST(RANSACTest, FindsTheLinesAmongPointsThatLieOnNone) {
    using Lines = std::vector<std::pair<Coordinates, Coordinates>>;  // starts and directions
    const std::tuple<const char*, bool, Lines> cases[] = {
        {"plane", false, {{{2, 3}, {20, -9}}, {{-5, 0}, {4, 22}}}},
        {"space", false, {{{2, 3, 4}, {20, -9, 3}}, {{2, 3, -5}, {0, 10, 20}}, {{-9, 0, 0}, {20, -9, 3}}}},
        {"through the origin", true, {{{0, 0, 0}, {3, 4, 25}}, {{0, 0, 0}, {20, -9, 3}}}},
        {"four dimensions", false, {{{2, 3, 4, 1}, {20, -9, 3, 8}}}},
    };
    SoFar soFar;
    for (const auto& [name, throughOrigin, lines] : cases)
        for (unsigned seed = 1; seed < 5; ++seed) {
            SCOPED_TRACE(testing::Message() << name << ", seed " << seed);
            std::mt19937 random(seed);
            Cloud cloud;
            int count = 160;
            for (const auto& [start, direction] : lines)
                cloud.addLine(random, count -= 30, start, direction);
            cloud.addNoise(random, 200, lines[0].first.size());
            RANSAC::Settings settings;
            settings.mostLines = static_cast<int>(lines.size());
            settings.throughOrigin = throughOrigin;
            settings.seed = seed;
            const auto found = cloud.fit(settings);
            ASSERT_EQ(found.size(), lines.size());
            for (std::size_t i = 0; i < found.size(); ++i) {
                const auto& [start, direction] = lines[i];
                EXPECT_LT(angleBetween(found[i].line, direction), 0.01);
                EXPECT_NEAR(found[i].line.getVec()->getLength(), 1.0, 1e-12);
                const Point<double> begin(start.data(), static_cast<unsigned char>(start.size()));
                EXPECT_LT(found[i].line.getDistTo(&begin), throughOrigin ? 1e-9 : 0.15);
                soFar.add(found[i].rms, found[i].inliers.size());
            }
            const auto again = cloud.fit(settings);
            EXPECT_EQ(again[0].inliers, found[0].inliers);
            EXPECT_TRUE(again[0].line.equalTo(&found[0].line));
        }
    EXPECT_NEAR(soFar.sum(), 3437.53773, 1e-4);
}

TEST(RANSACTest, CertainPointsDecideAndUncertainOnesLieFartherOff) {
    Cloud cloud;
    for (int i = -4; i <= 4; ++i) {
        cloud.add({5.0 * i, 0.0}, 0.01);
        cloud.add({5.0 * i + 1.0, 1.5}, 1.0);   // within 2.5 of its own uncertainty
        cloud.add({5.0 * i + 2.0, -1.5}, 0.1);  // not
    }
    const auto lines = cloud.fit({});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].inliers.size(), 18u);
    EXPECT_LT(std::abs(lines[0].line.getPoint(1)), 1e-3);
    EXPECT_NEAR(lines[0].rms, 1.5 * 0.01, 1e-4);
}

TEST(RANSACTest, EndsWithoutEnoughInliers) {
    Cloud cloud;
    std::vector<RANSAC::FittedLine> lines;
    EXPECT_TRUE(cloud.fit({}).empty());
    cloud.add({1, 1, 1}, 1.0);
    cloud.add({1, 1, 1}, 1.0);
    EXPECT_TRUE(cloud.fit({}).empty());
    for (const double x : {10.0, 20.0, 30.0})
        cloud.add({x, x, x}, 1.0);
    RANSAC::Settings settings;
    settings.mostLines = 1000;
    EXPECT_EQ(cloud.fit(settings).size(), 1u);
    settings.leastInliers = 6;
    EXPECT_TRUE(cloud.fit(settings).empty());
}

TEST(RANSACTest, RefusesWhatHasNoLines) {
    using Settings = RANSAC::Settings;
    Cloud good, flat, mixed, strange;
    for (const double x : {1.0, 2.0, 3.0}) {
        good.add({x, 0, 0}, 1.0);
        flat.add({x}, 1.0);
        mixed.add(Coordinates(static_cast<std::size_t>(x) + 1, x), 1.0);
        strange.add({x, 0, x > 2.0 ? INFINITY : 0.0}, 1.0);
    }
    const auto with = [](auto member, auto value) {
        Settings settings;
        settings.*member = value;
        return settings;
    };
    std::vector<double> short1{1.0}, zero{1.0, 0.0, 1.0};
    const std::vector<Point<double>*> missing{good.points[0], nullptr, good.points[1]};
    const std::tuple<const char*, decltype(&missing), decltype(&zero), Settings> cases[] = {
        {"no list of points", nullptr, nullptr, {}},
        {"point 0 is missing or has the wrong", &flat.points, nullptr, {}},
        {"point 1 is missing or has the wrong", &mixed.points, nullptr, {}},
        {"point 1 is missing", &missing, nullptr, {}},
        {"point 2 has a coordinate", &strange.points, nullptr, {}},
        {"3 points and 1 uncertainties", &good.points, &short1, {}},
        {"uncertainty of point 1", &good.points, &zero, {}},
        {"at least 1", &good.points, nullptr, with(&Settings::mostLines, 0)},
        {"at least 1", &good.points, nullptr, with(&Settings::mostDraws, 0)},
        {"confidence", &good.points, nullptr, with(&Settings::confidence, 1.0)},
        {"tolerance", &good.points, nullptr, with(&Settings::tolerance, std::nan(""))},
    };
    std::vector<RANSAC::FittedLine> lines = good.fit({});
    ASSERT_EQ(lines.size(), 1u);
    for (const auto& [message, points, uncertainties, settings] : cases) {
        SCOPED_TRACE(message);
        RecordingLogObserver log;
        EXPECT_FALSE(RANSAC::fitLines(points, uncertainties, settings, &lines));
        EXPECT_EQ(log.count(message, VRK::Error), 1);
        EXPECT_EQ(lines.size(), 1u);
    }
    EXPECT_FALSE(RANSAC::fitLines(&good.points, nullptr, {}, nullptr));
}

TEST(RANSACTest, FindsTheRowsOfMergedClusters) {
    std::mt19937 random(2);
    Cloud row, far, single;
    row.addLine(random, 3000, {2, 3, 10}, {2, 3, 10});  // from the origin on
    far.addLine(random, 5000, {20, 0, 0}, {2, 3, 10});
    single.addLine(random, 1000, {0, 15, 0}, {0, 0, 0});
    testing_support::Clustered<ClusterPoint<double>> found;
    auto& clusters = found.clusters;
    clusters.push_back(nullptr);
    for (auto* cloud : {&far, &row, &single})
        clusters.push_back(new Cluster<Point<double>>(&cloud->points, 1));
    std::vector<RANSAC::FittedLine> rows;
    CalculateCellAlgorithm algorithm;
    ASSERT_GE(algorithm.testRANSAC(&clusters, 2, &rows), 0.0);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_LT(angleBetween(rows[0].line, {2, 3, 10}), 0.02);
    EXPECT_LT(angleBetween(rows[1].line, {0, 15, 0}), 0.02);
    const auto inRow = std::count_if(rows[0].inliers.begin(), rows[0].inliers.end(),
                                     [](int p) { return p >= 5000 && p < 8000; });
    EXPECT_GT(inRow, 850);  // of every third of the 3000
    EXPECT_LT(static_cast<double>(rows[0].inliers.size()), 1.1 * static_cast<double>(inRow));

    RecordingLogObserver log;
    EXPECT_EQ(algorithm.testRANSAC(&clusters, 0, &rows), -1.0);
    found.clear();
    EXPECT_EQ(algorithm.testRANSAC(&clusters, 2, &rows), -1.0);
    EXPECT_EQ(log.count("a number of rows are needed", VRK::Error), 1);
    EXPECT_EQ(log.count("No rows among the points of 0 clusters.", VRK::Warning), 1);
    EXPECT_EQ(rows.size(), 2u);
}

}  // namespace
