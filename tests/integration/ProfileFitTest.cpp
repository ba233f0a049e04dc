#include "pipeline/integration/ProfileFit.h"

#include "pipeline/integration/CurveFit.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using namespace vrk;

constexpr int kSize = 160;

/// One frame with spots of an odd shape: two Gaussians side by side, over a flat background.
struct Picture {
    double background = 20;
    std::vector<short> pixels = std::vector<short>(kSize * kSize, 0);
    SpotPrediction prediction;
    SeriesGeometry geometry;
    FrameStack stack;
    std::vector<float> truth;

    void add(double x, double y, double counts) {
        const auto number = static_cast<std::uint32_t>(prediction.spots.size());
        prediction.spots.push_back(
            {.reflection = number, .x = static_cast<float>(x), .y = static_cast<float>(y), .share = 1});
        prediction.byFrame.push_back(number);
        truth.push_back(static_cast<float>(counts));
    }
    void expose(unsigned seed) {
        std::mt19937 random(seed);
        geometry.frames = {{0, 0.01, 80, 80}};
        prediction.frameStart = {0, static_cast<std::uint32_t>(prediction.spots.size())};
        forEachPixel(kSize, kSize, [&](int x, int y) {
            double mean = background;
            for (std::size_t i = 0; i < truth.size(); ++i) {
                const double dx = x - static_cast<double>(prediction.spots[i].x);
                const double dy = y - static_cast<double>(prediction.spots[i].y);
                if (std::hypot(dx, dy) > 8) continue;
                const auto lobe = [](double u, double v) {
                    return std::exp(-(u * u + v * v) / 2) / (2 * std::numbers::pi);
                };
                mean += truth[i] * (0.7 * lobe(dx - 0.6, dy) + 0.3 * lobe(dx + 1.4, dy - 0.5));
            }
            pixels[static_cast<std::size_t>(y * kSize + x)] =
                static_cast<short>(std::poisson_distribution<int>(mean)(random));
        });
        stack = {kSize, kSize, {pixels}, {}, 0};
    }
    std::vector<FittedSpot> fitted(const ProfileSet& profiles) const {
        return fitProfiles(stack, geometry, shape, noise, profiles, prediction, measured(), truth);
    }
    std::vector<MeasuredSpot> measured() const {
        return SpotMeasurement(stack, geometry, shape, noise, extent).sums(prediction);
    }

    RadialShape shape;
    NoiseModel noise;
    SpotExtent extent = SpotExtent::of(1.45);
};

/// Strong spots on a grid at all places between the pixels.
ProfileSet learned() {
    Picture picture;
    std::mt19937 random(3);
    std::uniform_real_distribution<double> shift(-3, 3);
    forEachPixel(6, 6, [&](int i, int j) {
        picture.add(15 + 26 * i + shift(random), 15 + 26 * j + shift(random), 20000);
    });
    picture.expose(5);
    return learnProfiles(picture.stack, picture.geometry, picture.shape, picture.noise, picture.extent,
                         picture.prediction, picture.measured());
}

TEST(SpotProfileTest, learnsTheShapeOfTheSpots) {
    const ProfileSet profiles = learned();
    EXPECT_EQ(profiles.spots(), 36);
    std::vector<float> values(21 * 21);
    profiles.of(0).sample(10.3, 9.8, 0, 0, 21, 21, values);
    double sum = 0, x = 0, y = 0;
    forEachPixel(21, 21, [&](int i, int j) {
        const double value = values[static_cast<std::size_t>(21 * j + i)];
        sum += value;
        x += value * (i - 10.3);
        y += value * (j - 9.8);
    });
    EXPECT_NEAR(sum, 1, 0.01);
    EXPECT_NEAR(x, 0.7 * 0.6 - 0.3 * 1.4, 0.02);
    EXPECT_NEAR(y, 0.3 * 0.5, 0.02);
}

TEST(ProfileFitTest, fitsAloneAndOverlappedSpotsWithHonestErrors) {
    const ProfileSet profiles = learned();
    double sum = 0, squares = 0, pairSum = 0, pairSquares = 0;
    constexpr int kPictures = 40;
    int alone = 0, paired = 0;
    SoFar soFar;
    for (unsigned seed = 1; seed <= kPictures; ++seed) {
        Picture picture;
        for (int i = 0; i < 6; ++i) {
            picture.add(20.3 + 24 * i, 20.7, 300);
            // Two spots 3.2 pixels apart, one much stronger.
            picture.add(20.3 + 24 * i, 70.2, 400);
            picture.add(23.0 + 24 * i, 71.9, 3000);
        }
        picture.expose(100 + seed);
        const auto measured = picture.measured();
        const auto fitted = picture.fitted(profiles);
        for (std::size_t i = 0; i < fitted.size(); ++i) {
            ASSERT_GT(fitted[i].variance, 0);
            soFar.add(fitted[i].counts, fitted[i].variance, fitted[i].seen);
            const double pull = (fitted[i].counts - picture.truth[i]) / std::sqrt(fitted[i].variance);
            (i % 3 == 0 ? sum : pairSum) += pull;
            (i % 3 == 0 ? squares : pairSquares) += pull * pull;
            ++(i % 3 == 0 ? alone : paired);
            EXPECT_EQ((measured[i].flags & kSpotOverlapped) != 0, i % 3 != 0);
        }
    }
    EXPECT_NEAR(sum / alone, 0, 0.25);
    EXPECT_NEAR(squares / alone, 1, 0.3);
    EXPECT_NEAR(pairSum / paired, 0, 0.25);
    EXPECT_NEAR(pairSquares / paired, 1, 0.3);
    EXPECT_NEAR(soFar.sum(), 2271517.67, 1e-1);
}

TEST(ProfileFitTest, leavesOutPixelsWithoutMeasurement) {
    const ProfileSet profiles = learned();
    Picture picture;
    picture.add(40.2, 40.1, 5000);
    picture.add(100.2, 40.1, 5000);
    picture.expose(9);
    const auto at = [&](int x, int y) -> short& {
        return picture.pixels[static_cast<std::size_t>(y * kSize + x)];
    };
    // A dead column next to the middle, and a spot that lost its upper half and more.
    for (int y = 30; y < 50; ++y)
        at(42, y) = FrameStack::kMissing;
    for (int y = 30; y <= 41; ++y)
        for (int x = 90; x < 110; ++x)
            at(x, y) = FrameStack::kMissing;
    picture.stack.frames = {picture.pixels};
    const auto measured = picture.measured();
    const auto fitted = picture.fitted(profiles);
    EXPECT_TRUE(measured[0].flags & kSpotMasked);
    EXPECT_NEAR(fitted[0].counts, 5000, 5 * std::sqrt(fitted[0].variance));
    EXPECT_LT(fitted[0].seen, 0.95);
    EXPECT_EQ(fitted[1].variance, 0);
}

TEST(ExpectedCountsTest, joinFriedelMatesThatAgreeAndAreNeverNegative) {
    SpotPrediction prediction;
    std::vector<CurveFit> fits;
    const auto add = [&](int h, double intensity, double sigma) {
        PredictedReflection one;
        one.g.setZero();
        one.h = h;
        one.length = 0.5;
        prediction.reflections.push_back(one);
        prediction.spots.push_back({static_cast<std::uint32_t>(fits.size()), 0, 0, 0, 0, 0, 0.5F});
        fits.push_back({intensity, sigma, 0, 1, 0, 1});
    };
    add(1, 1000, 20);
    add(-1, 1040, 20);
    add(2, 400, 20);
    add(-2, 1200, 20);
    add(3, -15, 10);
    add(4, 900, 0);
    const std::vector<float> expected = expectedCounts(prediction, fits, {vrk::IndexRotation()});
    EXPECT_NEAR(expected[0], 510, 1);
    EXPECT_EQ(expected[1], expected[0]);
    EXPECT_NEAR(expected[2], 200, 1);
    EXPECT_NEAR(expected[3], 600, 1);
    EXPECT_GT(expected[4], 1);
    EXPECT_LT(expected[4], 4);
    EXPECT_EQ(expected[5], 0);
}

}  // namespace
