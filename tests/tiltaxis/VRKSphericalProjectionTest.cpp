#include "tiltaxis/VRKSphericalProjection.h"

#include <rapidcheck.h>

#include "cellfinding/CalculateDiffVectors.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/Parameter.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

using Vector = std::array<double, 3>;

struct Histogram {
    Histogram(const std::vector<Vector>& vectors, int phi, int theta, bool fold = true)
        : nPhi(phi), image(static_cast<std::size_t>(phi) * static_cast<std::size_t>(theta)) {
        std::vector<std::unique_ptr<ClusterPoint<double>>> owned;
        std::vector<ClusterPoint<double>*> list;
        for (const Vector& vector : vectors) {
            owned.push_back(std::make_unique<ClusterPoint<double>>(vector.data(), 3, -1));
            list.push_back(owned.back().get());
        }
        if (fold) VRKSphericalProjection::foldToHalfSpace(&list);
        variance =
            VRKSphericalProjection::getSphericalHistoImage(&list, image.data(), phi, theta, &largest, false);
    }
    /// Azimuth and polar address of the only bin in use.
    std::pair<int, int> onlyBin() const {
        for (std::size_t i = 0; i < image.size(); ++i)
            if (image[i] == 255) return {static_cast<int>(i) % nPhi, static_cast<int>(i) / nPhi};
        return {-1, -1};
    }

    int nPhi;
    std::vector<int> image;
    int largest = -1;
    float variance = -1;
};

}  // namespace

TEST(VRKSphericalProjectionTest, PutsDirectionsIntoTheirBins) {
    // Eight by four bins of 22.5 by 45 degrees: azimuth from -z over x to z, polar angle from y.
    const std::pair<Vector, std::pair<int, int>> cases[] = {
        {{1, 0.01, 0.01}, {4, 1}}, {{-1, -0.01, -0.01}, {4, 1}}, {{1, 1, -0.9}, {2, 1}},
        {{-1, -1, 0.9}, {2, 1}},   {{0, 0.5, 1}, {7, 1}},  // an azimuth of exactly pi
        {{0, -0.5, -1}, {7, 1}},   {{1, -9, -20}, {0, 2}},       {{1, 9, 0.1}, {4, 0}},
        {{3, -40, 3}, {6, 3}},
    };
    for (const auto& [vector, bin] : cases) {
        const Histogram histogram({vector}, 8, 4);
        EXPECT_EQ(histogram.onlyBin(), bin) << vector[0] << ' ' << vector[1] << ' ' << vector[2];
        EXPECT_EQ(histogram.largest, 1);
    }
}

TEST(VRKSphericalProjectionTest, LeavesOutVectorsAlongThePoleAndScalesToEightBits) {
    const Histogram one({{0, 5, 0}, {0, -5, 0}, {1, 1, 1}}, 16, 16);
    EXPECT_EQ(std::accumulate(one.image.begin(), one.image.end(), 0), 255);
    EXPECT_FLOAT_EQ(one.variance, 1.0F / 256 - 1.0F / 65536);
    const Histogram two({{1, 0, 0}, {1, 0, 0}, {1, 0, 0}, {0, 0.1, 1}}, 8, 4);
    EXPECT_EQ(two.largest, 3);
    EXPECT_EQ(std::accumulate(two.image.begin(), two.image.end(), 0), 255 + 85);
}

TEST(VRKSphericalProjectionTest, GivesTheVarianceOfAPlainCount) {
    EXPECT_TRUE(rc::check([](std::vector<std::array<signed char, 3>> bytes) {
        constexpr int nPhi = 12, nTheta = 7;
        std::vector<Vector> vectors, opposite;
        std::vector<double> counts(nPhi * nTheta);
        for (const auto& b : bytes) {
            const Vector v = {b[0] + 0.25, b[1] + 0.125, b[2] + 0.375};
            vectors.push_back(v);
            opposite.push_back({-v[0], -v[1], -v[2]});
            const double sign = v[0] < 0 ? -1 : 1;
            const double phi = std::atan(sign * v[2] / (sign * v[0])) + std::numbers::pi / 2;
            const double theta = std::acos(sign * v[1] / std::hypot(v[0], v[1], v[2]));
            ++counts[static_cast<std::size_t>(std::floor(theta / std::numbers::pi * nTheta) * nPhi +
                                              std::floor(phi / std::numbers::pi * nPhi))];
        }
        const double mean = std::accumulate(counts.begin(), counts.end(), 0.0) / (nPhi * nTheta);
        double squares = 0;
        for (const double count : counts)
            squares += (count - mean) * (count - mean);
        const Histogram histogram(vectors, nPhi, nTheta);
        RC_ASSERT(std::abs(histogram.variance - squares / (nPhi * nTheta)) < 1e-5 * (1 + squares));
        RC_ASSERT(Histogram(opposite, nPhi, nTheta).image == histogram.image);
        const bool inRange = std::all_of(vectors.begin(), vectors.end(), [](const Vector& v) {
            return v[0] > 0 || std::abs(std::atan2(v[2], v[0])) < std::numbers::pi * (0.5 + 1.0 / nPhi);
        });
        const Histogram unfolded(vectors, nPhi, nTheta, false);
        RC_ASSERT((unfolded.largest >= 0) == inRange);
    }));
}

TEST(VRKSphericalProjectionTest, RefusesWhatHasNoBin) {
    RecordingLogObserver log;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Vector noBin[] = {{nan, 1, 1}, {-1, 0, 0}, {-1, 5, 1}, {-1, 5, -1}};
    for (const Vector& vector : noBin) {
        log.messages.clear();
        const Histogram histogram({vector, {1, 2, 3}}, 8, 4, false);
        EXPECT_EQ(histogram.variance, 0);
        EXPECT_EQ(std::accumulate(histogram.image.begin(), histogram.image.end(), 0), 0);
        EXPECT_EQ(histogram.largest, -1);
        EXPECT_EQ(log.count("(image address range 0-7, 0-3)", VRK::Error), 1);
    }
    int image = 0, largest = 0;
    EXPECT_EQ(VRKSphericalProjection::getSphericalHistoImage(nullptr, &image, 1, 1, &largest, true), 0);
    EXPECT_TRUE(log.has("no difference vectors", VRK::Error));
    Parameter parameter;
    ReflexVector one;
    one.append(ReflexPtr(new Reflex(1, 2, 3)));
    std::int64_t vectors = 7;
    for (const bool hasList : {true, false})
        EXPECT_EQ(VRKSphericalProjection::getSphericalHistoImageOfPairs(
                      hasList ? &one : nullptr, hasList ? nullptr : &parameter, &image, 1, 1, &largest,
                      &vectors, true),
                  0);
    EXPECT_EQ(vectors, 0);
}

TEST(VRKSphericalProjectionTest, CountsPairsAsTheListOfTheirVectors) {
    // Points on a grid have vectors along the axes and on the borders of bins.
    EXPECT_TRUE(rc::check([](std::vector<std::array<signed char, 3>> bytes, bool onGrid, unsigned char bins) {
        ReflexVector points;
        for (std::size_t i = 0; i < 8 * bytes.size(); ++i) {
            const auto& b = bytes[i / 8];
            const double scale = onGrid ? 1.0 : 0.731 + 1e-3 * static_cast<double>(i % 8);
            const double corner = i % 8 == 0 ? 0.0 : static_cast<double>(i % 3);
            points.append(ReflexPtr(new Reflex(scale * b[0] + corner, scale * b[1], scale * b[2] - corner)));
        }
        Parameter parameter;
        parameter.setMinLength(2.0);
        parameter.setMaxLength(150.0);
        const int nPhi = 1 + 3 * bins, nTheta = 1 + 2 * bins;
        std::vector<int> expected(static_cast<std::size_t>(nPhi) * static_cast<std::size_t>(nTheta));
        std::vector<int> image = expected;
        int most = -1, largest = -1;
        float variance = 0;
        std::int64_t count = -1;
        const std::unique_ptr<std::vector<ClusterPoint<double>*>> list(
            CalculateDiffVectors::calculateDiffVectors(&points, &parameter, nullptr, nullptr, true));
        VRKSphericalProjection::foldToHalfSpace(list.get());
        if (list)
            variance = VRKSphericalProjection::getSphericalHistoImage(list.get(), expected.data(), nPhi,
                                                                      nTheta, &most, false);
        const float fast = VRKSphericalProjection::getSphericalHistoImageOfPairs(
            &points, &parameter, image.data(), nPhi, nTheta, &largest, &count, false);
        RC_ASSERT(fast == variance);
        RC_ASSERT(image == expected);
        RC_ASSERT(largest == most);
        RC_ASSERT(count == (list ? static_cast<std::int64_t>(list->size()) : 0));
        if (list)
            for (auto* vector : *list)
                delete vector;
    }));
}
