#include "processing/ShadowMask.h"

#include "processing/SeriesFactory.h"
#include "processing/detail/PowderRings.h"
#include "support/SoFar.h"

namespace {

constexpr int kFrame = 224;
constexpr unsigned kPatterns = 6;

struct Scene {
    double barWidth = 0;        ///< pixels
    double barDirection = 0.3;  ///< radians from x towards y, from the middle to the border
    double discRadius = 0;      ///< pixels, about the middle
    double transmission = 0;
    double pedestal = 0;             ///< counts
    double gradient = 0;             ///< of the halo, relative at half a width
    double ice = 0;                  ///< counts of a ring
    double iceWidth = 2;             ///< its standard deviation, pixels
    double secondRing = 0;           ///< counts
    double ellipse = 0;              ///< of the rings, along the diagonal
    std::vector<int> deadRows = {};  ///< also columns
    bool shadow(double x, double y) const {
        const double dx = x - kFrame / 2.0, dy = y - kFrame / 2.0;
        const double along = dx * std::cos(barDirection) + dy * std::sin(barDirection);
        const double across = dy * std::cos(barDirection) - dx * std::sin(barDirection);
        return std::hypot(dx, dy) < discRadius || (along > -25 && std::abs(across) < 0.5 * barWidth);
    }
    bool dead(int x, int y) const {
        return std::ranges::count(deadRows, x) + std::ranges::count(deadRows, y) > 0;
    }
};

std::unique_ptr<VoxMRCData> seriesOf(const Scene& scene) {
    auto series = makeSeries(kFrame, kFrame, std::vector<float>(kPatterns, 1.0F));
    for (unsigned i = 0; i < kPatterns; ++i) {
        std::mt19937 random(i + 1);
        const double cx = kFrame / 2.0 + 2 + 0.2 * i, cy = kFrame / 2.0 - 1;
        std::vector<short> pixels;
        forEachPixel(kFrame, kFrame, [&](int x, int y) {
            const double r = std::hypot(x - cx, y - cy);
            const double ring = r - 2 * scene.ellipse * (x - cx) * (y - cy) / std::max(r, 1.0);
            const double spot =
                std::hypot(std::remainder(x - cx - 7.0 * i, 31.0), std::remainder(y - cy + 3.0 * i, 27.0));
            double value = 8 + 500 * (1 + scene.gradient * 2 * (x - cx) / kFrame) * std::exp(-r / 20) +
                           scene.ice * std::exp(-0.5 * std::pow((ring - 60) / scene.iceWidth, 2)) +
                           scene.secondRing * std::exp(-0.5 * std::pow((ring - 72) / scene.iceWidth, 2)) +
                           300 * std::exp(-spot * spot / 3) + 20000 * std::exp(-r * r / 20);
            if (scene.shadow(x, y)) value = scene.transmission * value + scene.pedestal;
            value = std::max(value, 1e-9);  // no distribution has a mean of nothing
            if (scene.dead(x, y)) value = 1e-9;
            pixels.push_back(static_cast<short>(std::min(
                value > 50 ? std::round(std::normal_distribution<double>(value, std::sqrt(value))(random))
                           : std::poisson_distribution<int>(value)(random),
                30000.0)));
        });
        setPixels(*series, i, pixels);
    }
    return series;
}

}  // namespace

TEST(ShadowMask, CoversTheStopAndTheCrossAndLeavesTheRest) {
    struct Case {
        const char* name;
        Scene scene;
        std::size_t bars, discs;
    };
    const std::vector<Case> cases = {
        {"nothing", {}, 0, 0},
        {"halo to one side", {.gradient = 0.5}, 0, 0},
        {"ring of ice", {.ice = 60}, 0, 0},
        {"bar", {.barWidth = 14}, 1, 0},
        {"bar that lets a fifth through", {.barWidth = 14, .transmission = 0.2}, 1, 0},
        {"bar on a pedestal", {.barWidth = 14, .barDirection = 2.0, .pedestal = 20}, 1, 0},
        {"bar and halo to one side", {.barWidth = 14, .barDirection = 3.0, .gradient = 0.4}, 1, 0},
        {"disc", {.discRadius = 15}, 0, 1},
        {"cross", {.deadRows = {95, 96, 97}}, 0, 0},
    };
    SoFar soFar;
    for (const Case& c : cases) {
        const ShadowMask mask(seriesOf(c.scene).get());
        EXPECT_EQ(mask.bars().size(), c.bars) << c.name;
        EXPECT_EQ(mask.discs().size(), c.discs) << c.name;
        EXPECT_EQ(mask.rows(), c.scene.deadRows) << c.name;
        EXPECT_EQ(mask.columns(), c.scene.deadRows) << c.name;
        int missed = 0, shadowed = 0, covers = 0;
        forEachPixel(kFrame, kFrame, [&](int x, int y) {
            const bool covered = mask.pixels() && mask.pixels()[y * kFrame + x];
            const bool dark = c.scene.shadow(x, y) || c.scene.dead(x, y);
            // Far from the beam, a shadow that is as bright as the pattern is none.
            const bool deep = std::hypot(x - kFrame / 2, y - kFrame / 2) < 45 || c.scene.dead(x, y);
            shadowed += dark && deep;
            missed += dark && deep && !covered;
            covers += covered;
        });
        for (const ShadowMask::Bar& bar : mask.bars())
            soFar.add(bar.width, bar.x0, bar.y0, bar.x1, bar.y1);
        for (const ShadowMask::Disc& disc : mask.discs())
            soFar.add(disc.radius, disc.x, disc.y);
        soFar.add(covers);
        EXPECT_LE(missed, shadowed / 10) << c.name;
    }
    EXPECT_NEAR(soFar.sum(), 19466.18667, 1e-3);
}

TEST(PowderRings, AreCutDownAlsoWhereLensesMakeThemElliptical) {
    for (const double ellipse : {0.0, 0.014, -0.03}) {
        SCOPED_TRACE(ellipse);
        VRK::detail::SeriesMean mean(
            *seriesOf({.ice = 9000, .iceWidth = 1.5, .secondRing = 5000, .ellipse = ellipse}));
        const VRK::detail::PowderRings rings(mean);
        ASSERT_FALSE(rings.empty());
        rings.removeFrom(mean);
        float highest = 0, middle = 0;
        forEachPixel(kFrame, kFrame, [&](int x, int y) {
            const double r = std::hypot(x - kFrame / 2.0 - 2.5, y - kFrame / 2.0 + 1);
            float& most = r < 40 ? middle : highest;
            if (r > 50 || r < 40)
                most = std::max(most, mean.values[static_cast<std::size_t>(y * kFrame + x)]);
        });
        EXPECT_LT(highest, 200);
        EXPECT_GT(middle, 5000) << "the direct beam";
    }
}

TEST(ShadowMask, FindsNothingWhereThereIsNothing) {
    EXPECT_TRUE(ShadowMask(nullptr).empty());
    EXPECT_EQ(ShadowMask().pixels(), nullptr);
    for (const unsigned size : {1U, 3U, 20U}) {
        const auto series = makeSeries(size, size + 1, {0, 1, 2});
        EXPECT_EQ(ShadowMask(series.get()).pixels(), nullptr) << size;
    }
}
