#include "pipeline/integration/LocalBackground.h"

#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using namespace vrk;

constexpr std::array kSums = {&BackgroundSums::pull,    &BackgroundSums::pullX,  &BackgroundSums::pullY,
                              &BackgroundSums::w,       &BackgroundSums::wx,     &BackgroundSums::wy,
                              &BackgroundSums::wxx,     &BackgroundSums::wxy,    &BackgroundSums::wyy,
                              &BackgroundSums::squares, &BackgroundSums::inside, &BackgroundSums::used};

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

/// One pixel after the other.
BackgroundSums plainSums(const BackgroundPixels& pixels, const BackgroundModel& model) {
    std::array<BackgroundSums, BackgroundSums::kLanes> lanes;
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        BackgroundSums& lane = lanes[i % lanes.size()];
        const float x = pixels.dx[i], y = pixels.dy[i];
        const float mean = model.level + model.slopeX * x + model.slopeY * y + pixels.shape[i];
        const float variance = std::max(model.gain * mean + model.floor, model.least);
        const float sharpness = 1 / std::sqrt(variance);
        const float relative = (pixels.counts[i] - mean) * sharpness;
        if (relative > model.outlier) continue;
        const float limited = std::clamp(relative, -model.limit, model.limit);
        const float pull = (limited - model.expected) * sharpness;
        const float weight = sharpness * sharpness;
        const float square = std::min(relative * relative, model.farthest * model.farthest) * variance;
        const BackgroundSums one = {pull,
                                    pull * x,
                                    pull * y,
                                    weight,
                                    weight * x,
                                    weight * y,
                                    weight * x * x,
                                    weight * x * y,
                                    weight * y * y,
                                    square,
                                    limited == relative ? 1.0F : 0.0F,
                                    1};
        for (const auto member : kSums)
            lane.*member += one.*member;
    }
    BackgroundSums sums;
    for (const BackgroundSums& lane : lanes)
        for (const auto member : kSums)
            sums.*member += lane.*member;
    return sums;
}

TEST(BackgroundSumsTest, areThoseOfOnePixelAfterTheOther) {
    std::mt19937 random(5);
    std::uniform_real_distribution<float> unit(-1, 1);
    for (std::size_t count = 0; count < 300; count = count * 5 / 4 + 1) {
        const BackgroundModel model = {
            5 + 4 * unit(random),         unit(random), unit(random), 2, 0.5F, 0.1F, 0.05F, 2, 6,
            count % 2 == 0 ? 6.0F : 1e30F};
        BackgroundPixels pixels;
        for (std::size_t i = 0; i < count; ++i)
            pixels.add(10 * unit(random), 10 * unit(random), 60 * std::abs(unit(random)), unit(random));
        const BackgroundSums sums = BackgroundSums::of(pixels, model), plain = plainSums(pixels, model);
        for (const auto member : kSums)
            EXPECT_EQ(sums.*member, plain.*member) << count;
    }
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
