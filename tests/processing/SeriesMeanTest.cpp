#include "processing/detail/SeriesMean.h"

#include "processing/SeriesFactory.h"

namespace {

// A reflection passes through neighbouring patterns and may not look like something that stands still.
TEST(SeriesMean, KeepsWhatStandsStillAndForgetsReflections) {
    constexpr unsigned kSize = 8, kPatterns = 40;
    const auto series = makeSeries(kSize, kSize, std::vector<float>(kPatterns, 1.0F));
    for (unsigned z = 0; z < kPatterns; ++z) {
        std::vector<short> pixels(kSize * kSize, z == 5 ? 0 : 100);  // one pattern is blank
        if (z != 5) pixels[3] = 20;
        if (z >= 17 && z < 24) pixels[30] = 5000;
        setPixels(*series, z, pixels);
    }
    const VRK::detail::SeriesMean mean(*series);
    EXPECT_EQ(mean.values[0], 100);
    EXPECT_EQ(mean.values[3], 20);
    EXPECT_EQ(mean.values[30], 100);
}

// Where a row ends is no neighbour of where the next begins.
TEST(SeriesMean, TellsTheCountsByNeighboursInARow) {
    const auto series = makeSeries(2, 5, {0});
    setPixels(*series, 0, {100, 144, 1600, 1681, 100, 144, 1600, 1681, 100, 144});
    const double sigma = 1.4826 * 44 / std::sqrt(244.0);
    EXPECT_NEAR(VRK::detail::SeriesMean(*series).counts, 1 / (sigma * sigma), 1e-6);
    EXPECT_EQ(VRK::detail::SeriesMean(*makeSeries(2, 5, {0})).counts, 0);
}

}  // namespace
