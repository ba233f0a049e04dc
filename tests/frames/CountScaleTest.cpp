#include "pipeline/frames/CountScale.h"
#include "pipeline/simulation/SimulationRandom.h"
#include "support/Testing.h"

namespace {

/// The choice for a pattern of noise about a level, in units, with one bright pixel.
double choice(double level, double noise, double bright, double unit = 1, bool whole = true) {
    vrk::SimulationRandom random(3);
    std::vector<float> pixels(20000);
    for (float& pixel : pixels) {
        double sum = 0;
        for (int i = 0; i < 12; ++i)
            sum += random.uniform();
        const double value = level + noise * (sum - 6);
        pixel = static_cast<float>(unit * (whole ? std::round(value) : value));
    }
    pixels[777] = static_cast<float>(unit * bright);
    vrk::CountScale scale;
    scale.add(pixels);
    return scale.choice();
}

TEST(CountScale, KeepsTheWeakBeforeTheBright) {
    EXPECT_EQ(choice(100, 10, 30000), 1);
    EXPECT_EQ(choice(100, 10, 200000), 1. / 7);    // all kept: a step is less than the noise
    EXPECT_EQ(choice(2, 1, 300000), 1);            // clipped: single counts matter
    EXPECT_EQ(choice(500, 5.5, 3e6), 0.25);        // clipped, but less
    EXPECT_EQ(choice(-5000, 40, -70000), 1. / 3);  // the lower limit counts, too
    // Fractions: the noise gets ten units, within the limit.
    EXPECT_NEAR(choice(100, 10, 500, 0.01, false), 100, 10);
    EXPECT_NEAR(choice(100, 10, 300000, 0.01, false), 10.9, 0.1);
    EXPECT_NEAR(choice(100, 10, 1e9, 1, false), 0.1, 0.01);
}

TEST(CountScale, NeedsNoNoise) {
    std::vector<float> pixels(1000, 0.0F);
    vrk::CountScale scale;
    scale.add(pixels);
    EXPECT_EQ(scale.choice(), 1);
    pixels[5] = 0.5F;
    scale.add(pixels);
    EXPECT_EQ(scale.choice(), 65000);
    EXPECT_FALSE(scale.whole());
}

TEST(CountScale, BringsTheLargestCountsIntoTheRange) {
    const float most = std::numeric_limits<float>::max();
    std::vector<float> pixels{1e30F, -1e30F, most, -most, NAN, INFINITY, 0.5F, 3};
    EXPECT_EQ(vrk::clearInvalid(pixels), 4);
    EXPECT_EQ(pixels, (std::vector<float>{1e30F, -1e30F, 0, 0, 0, 0, 0.5F, 3}));
    for (int i = 0; i < 4; ++i)  // differences that a float does not hold
        pixels.insert(pixels.end(), {2e38F, -2e38F});
    vrk::CountScale scale;
    scale.add(pixels);
    std::vector<short> slice(pixels.size());
    EXPECT_EQ(vrk::storeScaled(pixels, scale.choice(), slice), 0);
    EXPECT_NEAR(slice.back(), -9, 1);  // the noise is as large as the counts, and gets ten units
}

}  // namespace
