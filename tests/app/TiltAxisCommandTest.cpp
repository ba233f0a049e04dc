#include "app/RunVrk.h"
#include "pipeline/geometry/TiltAxisSearch.h"

namespace {

class TiltAxisCommandTest : public VrkTest {
protected:
    void simulate(const std::string& options) const {
        jsonOf("simulate --cell 3.7,4.4,5.1,90,97,90 --size 128 --seed 4 -o " + options);
    }
};

std::vector<TiltAxisScore> scoresOf(const std::vector<std::pair<double, double>>& values) {
    std::vector<TiltAxisScore> scores;
    for (const auto& [angle, variance] : values)
        scores.push_back({.angle = static_cast<float>(angle), .evaluated = true, .variance = variance});
    return scores;
}

TEST_F(TiltAxisCommandTest, FindsTheAxisOfARawSeriesWithAnyNumberOfThreads) {
    simulate("s.mrc --axis -12.3 --tilts -60:60:2 --drift 2");
    const Json one = jsonOf("tilt-axis s.mrc -o axis --accuracy 1 --jobs 1");
    EXPECT_NEAR(one["angle_deg"], -12.3, 0.5);
    EXPECT_TRUE(one["reliable"].get<bool>());
    EXPECT_EQ(one["scores"].size(), 58u);
    EXPECT_TRUE(exists("axis/histograms/diffVectorHistogramm_RotAngle_-90.png"));
    EXPECT_TRUE(exists(one["plots"].get<std::string>() + "/differenceVectorSpace_histogram_variance.png"));
    const Json three = jsonOf("tilt-axis s.mrc -o axis --accuracy 1 --jobs 3");
    EXPECT_EQ(three["scores"], one["scores"]);
    EXPECT_EQ(three["angle_deg"], one["angle_deg"]);
}

TEST_F(TiltAxisCommandTest, SaysWhatIsWrong) {
    simulate("one.mrc --tilts 5:5:1");
    simulate("noise.mrc --tilts -20:20:5 --peak 0.1 --background 0");
    expectRefused({{"one.mrc", 1, "one pattern"},
                   {"one.mrc --range 5 1 1", 2, "--range"},
                   {"one.mrc --method 4d", 2, "method"},
                   {"noise.mrc --preprocessed", 3, "no "}},
                  folder / ".", "tilt-axis -o out ");
}

TEST(TiltAxisFit, LaysAParabolaThroughTheScores) {
    std::vector<std::pair<double, double>> values;
    for (int i = -10; i <= 10; ++i)
        values.emplace_back(20 + i * 0.1, 50 - 3 * std::pow(20 + i * 0.1 - 20.13, 2) + (i % 2) * 1e-3);
    const vrk::TiltAxisFit fit = vrk::fitTiltAxis(scoresOf(values), 20.1);
    EXPECT_NEAR(fit.angle, 20.13, 2e-3);
    EXPECT_GT(fit.uncertainty, 0.0);
    EXPECT_LT(fit.uncertainty, 2e-3);
    // Nothing to fit: the angle stays, uncertain by half a step.
    const vrk::TiltAxisFit flat = vrk::fitTiltAxis(scoresOf({{1, 5}, {2, 4}, {3, 5}, {4, 6}, {5, 9}}), 5);
    EXPECT_EQ(flat.angle, 5.0);
    EXPECT_EQ(flat.uncertainty, 0.5);
    EXPECT_EQ(vrk::fitTiltAxis(scoresOf({{7, 5}}), 7).angle, 7.0);
}

}  // namespace
