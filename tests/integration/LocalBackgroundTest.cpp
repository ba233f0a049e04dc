#include "pipeline/integration/LocalBackground.h"

#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using namespace vrk;

struct Field {
    double level, slopeX, slopeY, gain, contamination;
};

/// A ring of counts about a spot; a part of its pixels belongs to a stranger's spot.
BackgroundPixels ring(const Field& field, std::mt19937& random) {
    BackgroundPixels pixels;
    for (int y = -11; y <= 11; ++y)
        for (int x = -11; x <= 11; ++x) {
            const double distance = std::hypot(x, y);
            if (distance < 6 || distance > 11) continue;
            const double mean = field.level + field.slopeX * x + field.slopeY * y;
            std::poisson_distribution<int> counts(mean / field.gain);
            double value = field.gain * counts(random);
            if (std::hypot(x - 8, y - 2) < 2.2) value += field.contamination;
            pixels.add(static_cast<float>(x), static_cast<float>(y), static_cast<float>(value), 0);
        }
    return pixels;
}

TEST(LocalBackgroundTest, isRightOnAverageAndKnowsItsError) {
    const Field fields[] = {{0.05, 0, 0, 1, 0}, {0.4, 0, 0, 1, 0},   {2, 0.05, 0, 1, 0},
                            {5, 0, 0.3, 1, 0},  {30, -1, 1, 1, 0},   {1000, 20, 5, 1, 0},
                            {40, 1, 0, 8, 0},   {30, 0, 0, 1, 4000}, {5, 0.1, 0, 1, 300}};
    std::mt19937 random(17);
    SoFar soFar;
    for (const Field& field : fields) {
        constexpr int kTrials = 1500;
        const LocalBackground fit({field.gain, 0});
        double sum = 0, squares = 0, variance = 0, scatter = 0;
        for (int trial = 0; trial < kTrials; ++trial) {
            const BackgroundPlane plane = fit.fit(ring(field, random));
            sum += plane.level - field.level;
            squares += std::pow(plane.level - field.level, 2);
            variance += plane.levelVariance;
            scatter += plane.scatter;
            soFar.add(plane.level, plane.slopeX, plane.slopeY, plane.levelVariance, plane.scatter);
        }
        const double error = std::sqrt(squares / kTrials);
        // A stranger's spot may pull by a part of the uncertainty, chance alone by a tenth of it.
        EXPECT_NEAR(sum / kTrials / error, 0, field.contamination > 0 ? 0.7 : 0.12) << field.level;
        if (field.contamination > 0) continue;
        EXPECT_NEAR(std::sqrt(variance / kTrials) / error, 1, 0.08) << field.level;
        EXPECT_NEAR(scatter / kTrials / (field.gain * field.level), 1, 0.03) << field.level;
    }
    EXPECT_NEAR(soFar.sum(), 3806918.03, 1e-1);
}

TEST(LocalBackgroundTest, takesAConstantFromOneSideAndNothingFromNothing) {
    const LocalBackground fit({1, 0});
    BackgroundPixels pixels;
    for (int i = 0; i < 7; ++i)
        pixels.add(static_cast<float>(i), 8, 20, 0);
    EXPECT_EQ(fit.fit(pixels).pixels, 0);
    for (int i = 0; i < 60; ++i)
        pixels.add(static_cast<float>(i % 8), static_cast<float>(6 + i / 8), 20, 0);
    const BackgroundPlane plane = fit.fit(pixels);
    EXPECT_FALSE(plane.tilted);
    EXPECT_NEAR(plane.level, 20, 0.5);
}

}  // namespace
