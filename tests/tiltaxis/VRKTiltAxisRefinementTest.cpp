#include "tiltaxis/VRKTiltAxisRefinement.h"

#include <thread>

#include "pipeline/base/Attempt.h"
#include "pipeline/base/Callbacks.h"
#include "pipeline/base/Workers.h"
#include "pipeline/geometry/TiltAxisSearch.h"
#include "pipeline/simulation/Simulation.h"
#include "processing/SeriesFactory.h"
#include "support/SoFar.h"
#include "tiltaxis/FindReflexes2d.h"

namespace {

/// A series of a small crystal with counting noise, without halo and background.
std::unique_ptr<VoxMRCData> crystalSeries(double axis) {
    vrk::SimulationSettings settings;
    settings.cell = {3.7, 4.4, 5.1, 90, 97, 90};
    settings.axis = axis;
    settings.peakCounts = 5000;
    settings.detector.size = 128;
    settings.background.halo = 0;
    settings.seed = 11;
    for (int tilt = -60; tilt <= 60; tilt += 2)
        settings.tilts.push_back(tilt);
    return vrk::simulateSeries(settings).series;
}

/// Distance of two lines.
double betweenAxes(double a, double b) {
    return std::abs(std::remainder(a - b, 180.0));
}

/// Runs a schedule without the work: scores come from a function of the angle.
class Rehearsal : public VRKTiltAxisRefinement {
public:
    explicit Rehearsal(std::function<double(float)> variance) : m_variance(std::move(variance)) {}

    std::vector<std::vector<float>> ranges;

protected:
    void evaluateAngles(const std::vector<float>& angles, const std::string&, bool) override {
        ranges.push_back(angles);
        for (const float angle : angles) {
            if (!beginAngle(angle)) return;
            TiltAxisScore score;
            score.angle = angle;
            score.evaluated = true;
            score.variance = m_variance(angle);
            recordScore(score);
        }
    }

private:
    std::function<double(float)> m_variance;
};

/// Wants to stop when it has been asked that often.
class Stopping : public Rehearsal {
public:
    explicit Stopping(int polls) : Rehearsal([](float) { return 1.0; }), m_polls(polls) {}

protected:
    bool stopRequested() const override { return m_asked++ >= m_polls || !scores().empty(); }

private:
    int m_polls;
    mutable int m_asked = 0;
};

/// Patterns with some spots, enough to be searched.
std::unique_ptr<VoxMRCData> spotSeries(unsigned width, unsigned height = 0, unsigned edge = 5) {
    if (height == 0) height = width;
    auto series = makeSeries(width, height, {-40, -20, 0, 20, 40});
    for (unsigned i = 0; i < 5; ++i)
        for (unsigned spot = 0; spot < 8; ++spot) {
            const unsigned x = width / 10 * (spot % 4 * 2 + 1), y = height / 8 * (spot / 4 * 4 + 1 + i / 3);
            for (unsigned d = 0; d < edge * edge; ++d)
                series->GetChunkPointer(i)[(y + d / edge) * width + x + d % edge] =
                    static_cast<short>(1000 - 50 * i);
        }
    return series;
}

}  // namespace

TEST(VRKTiltAxisRefinementTest, FindsTheAxisInPatternsFinelyAndInVolumes) {
    SoFar soFar, fits;
    const auto add = [&](const std::vector<TiltAxisScore>& scores) {
        for (const TiltAxisScore& one : scores)
            soFar.add(one.angle, one.variance, one.relativeVariance, one.maxValue, one.diffVectors,
                      one.reflexes, one.compactness);
    };
    const TemporaryFolder folder;
    for (const auto& [axis, finely] :
         {std::pair{0.0, false}, {-12.3, false}, {85.0, false}, {37.4, true}, {-89.5, true}}) {
        SCOPED_TRACE(axis);
        const auto series = crystalSeries(axis);
        VRKTiltAxisRefinement search;
        double angle = search.searchTiltAxis2dBruteForce(series.get(), "s", folder / "", 1.0);
        EXPECT_LE(betweenAxes(angle, axis), 0.6);
        add(search.scores());
        if (axis == 0) {  // the same by way of the pipeline, in threads, with its verdict
            const vrk::Workers workers(3);
            vrk::Callbacks caller;
            caller.stop = [here = std::this_thread::get_id()] {
                EXPECT_EQ(std::this_thread::get_id(), here);
                return false;
            };
            const auto result =
                vrk::attempt(caller, [&](vrk::Session& session) {
                    return vrk::findTiltAxis(*series, vrk::TiltAxisMethod::TwoD, 1.0, {}, session);
                }).value();
            EXPECT_EQ(result.gridAngle, angle);
            add(result.scores);
            EXPECT_TRUE(result.reliable);
            fits.add(result.angle, result.uncertainty, result.significance);
        }
        if (!finely) continue;
        angle = search.searchTiltAxisManual2D(series.get(), "s", folder / "", axis - 1.23, axis + 1.27, 0.1);
        EXPECT_LE(betweenAxes(angle, axis), 0.2);
        const vrk::TiltAxisFit fit = vrk::fitTiltAxis(search.scores(), angle);
        EXPECT_LE(betweenAxes(fit.angle, axis), 0.08);
        fits.add(fit.angle, fit.uncertainty);
        angle = search.searchTiltAxisManual3D(series.get(), "s", folder / "", axis - 44, axis + 44, 4);
        EXPECT_LE(betweenAxes(angle, axis), 0.01);
        add(search.scores());
    }
    EXPECT_NEAR(soFar.sum(), 22909347.0, 1e0);
    EXPECT_NEAR(fits.sum(), -11.6875118, 1e-6);
}

TEST(VRKTiltAxisRefinementTest, FindsTheAxisHoweverBrightTheSeriesIs) {
    const TemporaryFolder folder;
    SoFar soFar;
    for (const double factor : {0.1, 6.0}) {  // peaks of 500 counts, and many that are cut off
        const auto series = crystalSeries(20.0);
        for (unsigned i = 0; i < series->GetDepth(); ++i)
            for (unsigned p = 0; p < series->GetChunkSize(); ++p) {
                short& pixel = series->GetChunkPointer(i)[p];
                pixel = static_cast<short>(std::min(std::lround(factor * pixel), 32767L));
            }
        VRKTiltAxisRefinement search;
        EXPECT_FLOAT_EQ(search.searchTiltAxisManual3D(series.get(), "", folder / "", -70, 80, 30), 20.0F)
            << factor;
        for (const TiltAxisScore& one : search.scores())
            soFar.add(one.variance, one.compactness, one.reflexes);
    }
    EXPECT_NEAR(soFar.sum(), 2795.6894, 1e-2);
}

TEST(VRKTiltAxisRefinementTest, LeavesTheSeriesAloneAndWritesImagesAndPlots) {
    const TemporaryFolder folder;
    const auto series = crystalSeries(37.4);
    const std::vector<short> before = pixelsOf(*series, 30);
    VRKTiltAxisRefinement search;
    RecordingLogObserver log;
    search.searchTiltAxisManual2D(series.get(), "crystal", folder / "", 36.5, 38, 0.5);
    ASSERT_EQ(search.scores().size(), 4u);
    EXPECT_EQ(log.count("save JPEG done.", VRK::Normal), 4);
    EXPECT_EQ(pixelsOf(*series, 30), before);
    for (const char* name : {"diffVectorHistogramm_RotAngle_36.5.png", "diffVectorHistogramm_RotAngle_38.png",
                             "crystal_searchTiltAxis_plots/differenceVectorSpace_histogram_variance.plt",
                             "crystal_searchTiltAxis_plots/differenceVectorSpace_histogram_variance2_1.dat",
                             "crystal_searchTiltAxis_plots/differenceVectorSpace_histogram_maxValue.plt"})
        EXPECT_TRUE(std::filesystem::exists(folder / name)) << name;
    EXPECT_FALSE(std::filesystem::exists(folder / "crystal_searchTiltAxis_plots/3d_volume_compactness.plt"));
    const std::string plot =
        folder.read("crystal_searchTiltAxis_plots/differenceVectorSpace_histogram_variance.plt");
    EXPECT_TRUE(says(plot, {"set xlabel 'angle of the tilt axis (degrees)'", "set xrange [27.5:47.5]",
                            "arrow from 37.5, graph 0 to 37.5, ", "variance, best angle 37.5 degrees"}));
}

TEST(VRKTiltAxisRefinementTest, TriesAnglesOnAScheduleThatFollowsTheAccuracy) {
    const TemporaryFolder folder;
    const auto series = spotSeries(64);
    for (const auto& [accuracy, iterations, steps] : std::vector<std::tuple<double, std::size_t, int>>{
             {2.0, 2, 59}, {1.0, 2, 59}, {0.5, 3, 79}, {0.1, 3, 79}, {0.01, 4, 99}}) {
        RecordingLogObserver log;
        RecordingProgressObserver progress;
        Rehearsal search([](float angle) { return 1000.0 - std::abs(static_cast<double>(angle) - 88.24); });
        search.registerObserver(&progress);
        const float angle = search.searchTiltAxis2dBruteForce(series.get(), "", folder / "", accuracy);
        EXPECT_TRUE(log.has("iterations = " + std::to_string(iterations), VRK::Normal));
        EXPECT_EQ(progress.steps(), steps);
        ASSERT_EQ(search.ranges.size(), iterations);
        EXPECT_EQ(search.ranges[0].size(), 37u);
        EXPECT_EQ(progress.updates.back(), static_cast<int>(37 + 21 * (iterations - 1)));
        // The best angle was 90: the range goes on beyond it.
        EXPECT_EQ(search.ranges[1].size(), 21u);
        EXPECT_EQ(search.ranges[1].front(), 80.0F);
        EXPECT_EQ(search.ranges[1].back(), 100.0F);
        EXPECT_NEAR(static_cast<double>(angle), 88.24,
                    0.51 * std::pow(10.0, 2.0 - static_cast<double>(iterations)));
    }
    // Of equal ones it keeps the earlier.
    Rehearsal search([](float angle) { return angle == -35.0F || angle >= 40.0F ? 2.0 : 1.0; });
    EXPECT_EQ(search.searchTiltAxisManual2D(series.get(), "", folder / "", -50, 50, 5), -35.0F);
}

TEST(VRKTiltAxisRefinementTest, HalvesSeriesOfMoreThan256Pixels) {
    const TemporaryFolder folder;
    for (const auto& [width, height, halvings, size] :
         std::vector<std::tuple<unsigned, unsigned, long, std::string>>{
             {256, 256, 0, ""}, {257, 257, 1, "128 x 128 x 5"}, {600, 513, 2, "150 x 150 x 5"}}) {
        RecordingLogObserver log;
        const auto series = spotSeries(width, height);
        Rehearsal search([](float) { return 1.0; });
        EXPECT_NE(search.searchTiltAxisManual3D(series.get(), "", folder / "", 0, 1, 1),
                  VRKTiltAxisRefinement::kNoAngle);
        EXPECT_EQ(log.count("input volume rebinned to ", VRK::Normal), halvings) << width;
        EXPECT_EQ(log.has("rebinned to " + size, VRK::Normal), halvings > 0) << width;
        EXPECT_EQ(log.has("rebinned volume deleted", VRK::Normal), halvings > 0);
        EXPECT_FALSE(log.has("Patterns binned from", VRK::Normal));
    }
}

// What is no spot in a pattern may be a reflection in the volume.
TEST(VRKTiltAxisRefinementTest, SearchesVolumesOfPatternsWithoutSpots) {
    const TemporaryFolder folder;
    const auto series = spotSeries(250, 250, 22);
    ASSERT_TRUE(ReflexVectorPtr(FindReflexes2d().findAllReflexes(series.get()))->empty());
    Rehearsal search([](float angle) { return 3.0 - std::abs(angle); });
    RecordingLogObserver log;
    EXPECT_EQ(search.searchTiltAxisManual3D(series.get(), "", folder / "", -2, 2, 1), 0.0F);
    EXPECT_TRUE(log.has("a value of 990.265 reaches the threshold of 125; the 20 most intense", VRK::Normal));
}

TEST(VRKTiltAxisRefinementTest, SaysWhyThereIsNoAngle) {
    const TemporaryFolder folder;
    const auto good = spotSeries(64);
    const auto zero = makeSeries(16, 16, range(1, 300, 1));
    const auto many = makeSeries(16, 16, range(0, 300, 1));
    const auto one = makeSeries(64, 64, {5});
    const auto untilted = makeSeries(64, 64, {5, 5, 5});
    const auto unsorted = makeSeries(64, 64, {0, 20, 10});
    const std::tuple<VoxMRCData*, std::string, const char*> cases[] = {
        {good.get(), "", "folderName2SaveResults ==  \n"},
        {good.get(), folder / "missing", "does not exist"},
        {good.get(), folder.write("file", "x"), "does not exist"},
        {nullptr, folder / "", "there is no series"},
        {zero.get(), folder / "", "no reflections"},
        {many.get(), folder / "", "301 patterns, and only 300 have"},
        {one.get(), folder / "", "one pattern"},
        {untilted.get(), folder / "", "same tilt angle"},
        {unsorted.get(), folder / "", "do not ascend"}};
    for (const auto& [series, place, message] : cases)
        for (const bool volume : {true, false}) {
            RecordingLogObserver log;
            VRKTiltAxisRefinement search;
            const float angle = volume ? search.searchTiltAxisAutomated3D(series, "n", place, 0.1)
                                       : search.searchTiltAxis2dBruteForce(series, "n", place, 0.1);
            EXPECT_EQ(angle, 777777.75F) << message;
            EXPECT_TRUE(log.has(message, VRK::Error)) << message;
            EXPECT_TRUE(search.scores().empty());
        }
    VRKTiltAxisRefinement search;
    for (const double step : {0.0, -1.0, std::nan(""), 1e-9})
        EXPECT_EQ(search.searchTiltAxisManual3D(good.get(), "", folder / "", 0, 10, step), 777777.75F);
}

TEST(VRKTiltAxisRefinementTest, ReturnsNoAngleWhenStopped) {
    const TemporaryFolder folder;
    const auto series = crystalSeries(-85);
    RecordingProgressObserver progress(5);  // the announcement and four angles
    VRKTiltAxisRefinement search;
    search.registerObserver(&progress);
    RecordingLogObserver log;
    EXPECT_EQ(search.searchTiltAxis2dBruteForce(series.get(), "", folder / "", 0.1), 777777.75F);
    EXPECT_EQ(search.scores().size(), 3u);
    EXPECT_TRUE(log.has("canceled after 3 angles", VRK::Warning));
    EXPECT_FALSE(std::filesystem::exists(folder / "_searchTiltAxis_plots"));

    // Whenever it is stopped in its preparation, it tries no angle.
    const auto wide = spotSeries(280, 260);
    for (int polls = 0; polls < 100000; polls += 1 + polls / 2) {
        Stopping stopping(polls);
        EXPECT_EQ(stopping.searchTiltAxisManual3D(wide.get(), "", folder / "", 0, 1, 1), 777777.75F);
        if (!stopping.scores().empty()) break;
        EXPECT_EQ(log.count("canceled in its preparation", VRK::Warning), 1) << polls;
        EXPECT_EQ(log.count("", VRK::Error), 0) << polls;
        log.messages.clear();
    }
    EXPECT_TRUE(log.has("canceled after 1 angles", VRK::Warning));
}
