#include "cellfinding/FSC.h"

#include "Clustered.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using namespace testing_support;

struct FscRun : Clustered<ClusterPoint<double>> {
    void addBackground(int count, std::size_t dimension, double extent) {
        addBox(count, Coordinates(dimension, -extent), Coordinates(dimension, extent));
    }
    bool run(double radius, VoxProgressObserver* observer = nullptr) {
        FSC fsc;
        fsc.registerObserver(observer);
        return fsc.cluster(grid.get(), radius, &clusters, &noise);
    }
};

/// The squared distance of a point from what has these coordinates.
template <typename At>
double squareTo(const Point<double>& point, const At& at) {
    double square = 0.0;
    for (int k = 0; k < point.getDimension(); ++k)
        square += std::pow(point.getData(k) - at(k), 2);
    return square;
}

/// The class of a point and its membership, from all centres.
std::pair<std::size_t, double> plainClass(const ClusterPoint<double>& point,
                                          const std::vector<DiffVector3D>& centres, double radius) {
    std::vector<double> closeness{std::pow(0.75 * radius, -2)};
    for (const DiffVector3D& centre : centres) {
        const double square = squareTo(point, [&](int k) { return centre.getValue(k); });
        closeness.push_back(square < std::pow(1.5 * radius, 2) ? 1.0 / square : 0.0);
    }
    const auto largest = std::max_element(closeness.begin(), closeness.end());
    return {static_cast<std::size_t>(largest - closeness.begin()),
            *largest / std::accumulate(closeness.begin(), closeness.end(), 0.0)};
}

TEST(FSCTest, FindsBlobsAndTheirRadiusOnABackground) {
    // Width and distance of the blobs, dimension, points of the background, radius.
    const std::tuple<const char*, double, double, std::size_t, int, double> cases[] = {
        {"sharp", 0.4, 9.0, 3, 8000, 0.0}, {"blurred", 1.0, 12.0, 3, 3000, 0.0},
        {"close", 0.5, 4.0, 3, 3000, 0.0}, {"without background", 0.6, 9.0, 3, 0, 0.0},
        {"plane", 0.7, 9.0, 2, 1000, 0.0}, {"radius too large", 0.5, 9.0, 3, 3000, 3.0},
        {"dense", 0.3, 4.0, 3, 0, 0.0},
    };
    SoFar soFar;
    for (const auto& [name, width, distance, dimension, background, radius] : cases) {
        SCOPED_TRACE(name);
        const double sigma = width;
        FscRun c;
        std::vector<Coordinates> centres;
        for (int i = 0; i < 12; ++i) {
            Coordinates centre(dimension);
            centre[0] = distance * (i % 3 - 1) + 0.3;
            centre[1] = distance * (i / 3 % 2);
            if (dimension == 3) centre[2] = distance * (i / 6) - 2.1;
            if (dimension == 2 && i >= 6) break;
            centres.push_back(centre);
            c.addBlob(centre, 400 - 20 * i, sigma);
        }
        c.addBackground(background, dimension, 24.0);
        c.makeGrid();
        const double found = FSC::findRadius(c.grid.get());
        EXPECT_NEAR(found / (4.0 * sigma), 1.0, 0.3);
        std::vector<double> memberships;
        std::vector<DiffVector3D> fuzzy;
        ASSERT_TRUE(FSC().cluster(c.grid.get(), radius, &c.clusters, &c.noise, &memberships, &fuzzy));
        ASSERT_EQ(c.clusters.size(), centres.size());
        ASSERT_EQ(fuzzy.size(), centres.size());
        for (std::size_t i = 0; i < centres.size(); ++i) {
            const Point<double> centre(centres[i].data(), static_cast<unsigned char>(dimension));
            EXPECT_TRUE(std::any_of(c.clusters.begin(), c.clusters.end(), [&](const auto* cluster) {
                return squareTo(centre, [&](int k) { return cluster->getCenterOfGrafity(k); }) <
                       std::pow(0.3 * sigma, 2);
            })) << i;
            for (std::size_t k = 0; k < dimension; ++k)
                EXPECT_NEAR(fuzzy[i].getValue(static_cast<int>(k)),
                            c.clusters[i]->getCenterOfGrafity(static_cast<int>(k)), 0.3 * sigma);
        }
        ASSERT_EQ(memberships.size(), c.points.size());
        EXPECT_TRUE(c.agrees());
        for (std::size_t i = 0; i < memberships.size(); ++i) {
            const auto* point = c.grid->getPoint(static_cast<int>(i));
            ASSERT_GE(point->getClusterID(), 0);
            const auto label = static_cast<std::size_t>(point->getClusterID());
            const auto [expected, share] = plainClass(*point, fuzzy, radius > 0.0 ? radius : found);
            ASSERT_EQ(label, expected);
            ASSERT_NEAR(memberships[i], share, 1e-12);
        }
        soFar.add(found);
        soFar.addAll(memberships);
    }
    EXPECT_NEAR(soFar.sum(), 36267.2619, 1e-3);
}

TEST(FSCTest, FindsNothingInAnEvenCloud) {
    for (const int count : {2, 300, 6000}) {
        FscRun c;
        c.addBackground(count, 3, 20.0);
        c.makeGrid();
        EXPECT_TRUE(c.run(0.0));
        EXPECT_TRUE(c.clusters.empty());
        EXPECT_EQ(c.noise.size(), static_cast<std::size_t>(count));
    }
}

TEST(FSCTest, ReportsProgressAndStops) {
    FscRun c;
    for (const double x : {-10.0, 0.0, 10.0})
        c.addBlob({x, 1, 1}, 200, 0.5);
    c.makeGrid();
    RecordingProgressObserver whole;
    ASSERT_TRUE(c.run(0.0, &whole));
    EXPECT_EQ(whole.titles, std::vector<std::string>{"FSC clustering"});
    EXPECT_EQ(whole.steps(), 100);
    EXPECT_EQ(whole.updates.back(), 100);
    EXPECT_TRUE(std::is_sorted(whole.updates.begin(), whole.updates.end()));
    ASSERT_GE(whole.updates.size(), 4u);
    const auto before = c.clusters;
    for (std::size_t at = 1; at < whole.updates.size(); ++at) {
        RecordingProgressObserver stop(at);
        RecordingLogObserver log;
        EXPECT_FALSE(c.run(0.0, &stop));
        EXPECT_EQ(log.count("FSC clustering canceled.", VRK::Warning), 1);
        EXPECT_EQ(c.clusters, before);
    }
    // As a step of the cell finding.
    Parameter parameter;
    RecordingProgressObserver stop(1);
    std::vector<Cluster<Point<double>>*> clusters;
    std::vector<ClusterPoint<double>*> noise;
    EXPECT_EQ(CalculateCellAlgorithm().clusteringStep(&parameter, c.grid.get(), &clusters, &noise,
                                                      ClusteringMethod::FSC, &stop),
              -1.0);
}

TEST(FSCTest, RefusesWhatItCannotCluster) {
    FscRun good, one, line, strange, wide;
    good.addBlob({0, 0, 0}, 20, 1.0);
    for (const auto& [clustering, places] : {std::pair{&one, std::vector<Coordinates>{{1, 2, 3}}},
                                             {&line, {{1}, {2}}},
                                             {&strange, {{1, 2, 3}, {1, -INFINITY, 3}}},
                                             {&wide, {{-1e9, 0, 0}, {0, 1e9, -1e9}}}})
        for (const Coordinates& place : places)
            clustering->add(place);
    for (FscRun* c : {&good, &one, &line, &strange})
        c->makeGrid();
    wide.makeGridAround(8);  // other limits do not let points outside in
    const std::tuple<const char*, FscRun*, double> cases[] = {
        {"fewer than two points", &one, 0.0},
        {"two or three coordinates", &line, 0.0},
        {"no number", &strange, 0.0},
        {"must be 0 or above", &good, -1.0},
        {"must be 0 or above", &good, std::nan("")},
        {"too small for the extent", &wide, 2.0},
    };
    for (const auto& [message, bad, radius] : cases) {
        SCOPED_TRACE(message);
        RecordingLogObserver log;
        EXPECT_FALSE(bad->run(radius));
        EXPECT_EQ(log.count(message, VRK::Error), 1);
        EXPECT_TRUE(bad->clusters.empty() && bad->noise.empty());
    }
    RecordingLogObserver log;
    EXPECT_FALSE(FSC().cluster(nullptr, 0.0, &good.clusters, &good.noise));
    EXPECT_FALSE(FSC().cluster(good.grid.get(), 0.0, nullptr, &good.noise));
    EXPECT_EQ(log.count("no grid or no list", VRK::Error), 2);
    EXPECT_TRUE(wide.run(0.0));
    EXPECT_EQ(FSC::findRadius(one.grid.get()), 0.0);
}

}  // namespace
