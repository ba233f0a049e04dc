#include "tiltaxis/FindReflexes2d.h"

#include "processing/SeriesFactory.h"
#include "support/SoFar.h"
#include "tiltaxis/Reflex2d.h"

namespace {

/// Two patterns of noise about 0 with a round spot at (u, v) from the centre.
std::unique_ptr<VoxMRCData> spotSeries(double u, double v, double height, double noise) {
    auto series = makeSeries(96, 96, {-3, 3});
    std::mt19937 random(5);
    std::normal_distribution<double> normal(0, noise);
    for (unsigned i = 0; i < 2; ++i)
        forEachPixel(96, 96, [&](int x, int y) {
            series->GetChunkPointer(i)[y * 96 + x] = static_cast<short>(
                std::lround(normal(random) +
                            height * std::exp(-(std::pow(x - 47.5 - u, 2) + std::pow(y - 47.5 - v, 2)) / 3)));
        });
    return series;
}

const Reflex2d& first(const ReflexVectorPtr& list) {
    return dynamic_cast<const Reflex2d&>(*list->front());
}

}  // namespace

TEST(FindReflexes2dTest, FindsSpotsOfWeakAndBrightPatternsAtTheirPlace) {
    SoFar soFar;
    for (const double scale : {1.0, 8.0, 300.0}) {
        const auto series = spotSeries(20.3, -11.6, 40 * scale, 2 * scale);
        series->GetChunkPointer(0)[20 * 96 + 20] = static_cast<short>(20 * scale);  // too small for a spot
        const ReflexVectorPtr spots(FindReflexes2d().findAllReflexes(series.get()));
        ASSERT_EQ(spots->size(), 2u) << scale;
        EXPECT_NEAR(first(spots).getU(), 20.3, 0.15);
        EXPECT_NEAR(first(spots).getV(), -11.6, 0.15);
        EXPECT_EQ(first(spots).getPattern(), 0);
        EXPECT_EQ(first(spots).getTilt(), -3);
        soFar.add(first(spots).getU(), first(spots).getV(), first(spots).getIntensity());
    }
    EXPECT_NEAR(soFar.sum(), 123622.760, 1e-2);
}

TEST(FindReflexes2dTest, LeavesOutTheDirectBeam) {
    const auto series = spotSeries(2.0, 1.0, 2000, 5);
    EXPECT_TRUE(ReflexVectorPtr(FindReflexes2d().findAllReflexes(series.get()))->empty());
}

TEST(FindReflexes2dTest, RefusesNothingAndStopsOnRequest) {
    RecordingLogObserver log;
    EXPECT_EQ(FindReflexes2d().findAllReflexes(nullptr), nullptr);
    EXPECT_TRUE(log.has("there is no series", VRK::Error));
    const auto series = spotSeries(20, 20, 100, 1);
    RecordingProgressObserver progress(2);
    FindReflexes2d search;
    search.registerObserver(&progress);
    EXPECT_EQ(search.findAllReflexes(series.get()), nullptr);
}
