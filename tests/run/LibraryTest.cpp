// The pipeline as a library: values in, values out, nothing on the standard output.

#include <thread>

#include "pipeline/Pipeline.h"
#include "pipeline/base/Angle.h"
#include "pipeline/integration/FrameStack.h"
#include "pipeline/report/PatternViews.h"
#include "pipeline/run/RunFolder.h"
#include "pipeline/run/RunProfile.h"
#include "pipeline/run/RunSummary.h"
#include "support/FailureOf.h"
#include "support/ReportedData.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

/// A small crystal about an axis at 20 degrees.
vrk::TiltSeries seriesOf(std::array<double, 6> cell, char centring) {
    vrk::SimulationSettings settings;
    settings.cell = cell;
    settings.centring = centring;
    settings.dmin = 1.0;
    settings.axis = 20;
    settings.stated.axis = true;
    settings.detector.size = 128;
    for (double tilt = -40; tilt <= 40; tilt += 4)
        settings.tilts.push_back(tilt);
    return vrk::simulate(settings).value().series;
}

const vrk::TiltSeries& simple() {
    static const vrk::TiltSeries series = seriesOf({4, 5, 6, 90, 90, 90}, 'P');
    return series;
}

const vrk::TiltSeries& centred() {
    static const vrk::TiltSeries series = seriesOf({6, 7, 8, 90, 90, 90}, 'C');
    return series;
}

vrk::RunOptions quick() {
    vrk::RunOptions options;
    options.intensities.wanted = false;
    return options;
}

/// The summary up to what differs from run to run.
std::string summaryOf(const vrk::RunResult& result) {
    const std::string text = vrk::summaryJson({"", "series", {}}, result, {}, {});
    return text.substr(0, text.find("\"seconds\""));
}

TEST(Library, FindsWhatTheStagesFindAndNarratesNothing) {
    const TemporaryFolder folder;
    ASSERT_TRUE(simple().write(folder / "series.mrc"));
    testing::internal::CaptureStdout();
    const auto series = vrk::TiltSeries::read(folder / "series.mrc");
    vrk::RunResult result = vrk::run(*series).value();
    const vrk::RunResult again =
        vrk::attempt(vrk::silence(), [&](vrk::Session& session) {
            return vrk::run(std::filesystem::path(folder / "series.mrc"), vrk::RunOptions(), session);
        }).value();
    const auto centredFirst = vrk::attempt(vrk::silence(), [&](vrk::Session& session) {
        vrk::CentredSeries frames =
            vrk::centre(vrk::makeSeries(series->copy(), {}, session), {}, true, session);
        return vrk::run(std::move(frames), {}, session);
    });
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(summaryOf(result), summaryOf(again));
    SoFar soFar;
    soFar.addText(summaryOf(result));
    EXPECT_NEAR(soFar.sum(), 13408.7534, 1e-3);
    EXPECT_EQ(summaryOf(result), summaryOf(centredFirst.value())) << "begun at the second stage";

    const vrk::CellRow cell = vrk::conventionalCell(result);
    EXPECT_EQ(cell.bravais, "oP");
    const std::array<double, 6> truth = {4, 5, 6, 90, 90, 90};
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(cell.cell[i], truth[i], 0.01 * truth[i]);

    const auto frames = vrk::frameRows(result);
    ASSERT_EQ(frames.size(), 21U);
    EXPECT_EQ(frames.front().tilt, -40);
    EXPECT_NEAR(frames[3].x, 63.5, 0.5);
    EXPECT_EQ(vrk::mergedRows(result).size(), result.intensities->reduction.merged.size());
    EXPECT_EQ(vrk::observationRows(result).size(), result.intensities->reduction.observations.size());
    const auto intensities = vrk::intensityRows(result);
    const vrk::IntegratedReflection& third = result.intensities->integration.reflections.at(2);
    EXPECT_EQ(intensities.at(2).sigma, third.sigma);
    EXPECT_EQ(intensities.at(2).spacing, third.spacing);

    const auto files = vrk::writeResults(result, folder / "result", "series.mrc");
    for (const auto& file : files.value())
        EXPECT_TRUE(std::filesystem::exists(file)) << file;
    EXPECT_TRUE(says(folder.read("result/summary.json"), "\"path\": \"series.mrc\""));
    const vrk::CalibrationInput here = vrk::calibrationInput("", result);
    const vrk::CalibrationInput there = vrk::readRunFolder(folder / "result");
    for (const vrk::CalibrationInput& one : {here, there})
        soFar.add(one.width, one.wavelength, one.sense, one.axisAngle, one.centre.sum(), one.type,
                  one.tilts.back(), one.positions.back().sum(), one.lattice.basis(0, 1),
                  one.toConventional.sum());
    EXPECT_LT((there.lattice.basis - here.lattice.basis).norm(), 1e-4);
    const std::filesystem::path results[] = {folder / "result"};
    vrk::writeReportPage(results, folder / "page.html").value();
    EXPECT_TRUE(says(folder.read("page.html"), "series.mrc"));
    for (const auto& [kind, name] : {std::pair{vrk::ReflectionFile::Shelx, "reflections.hkl"},
                                     {vrk::ReflectionFile::Cif, "merged.cif"},
                                     {vrk::ReflectionFile::FrameTable, "frames.csv"},
                                     {vrk::ReflectionFile::DynamicalCif, "dynamical.cif_pets"}}) {
        vrk::writeReflections(result, kind, folder / "one").value();
        EXPECT_EQ(folder.read("one"), folder.read(std::string("result/") + name)) << name;
    }

    EXPECT_GT(vrk::measuredCopyRate(), 0);
    for (const auto& step : vrk::profileOf(result, vrk::Workers(1), 1e9).steps) {
        soFar.add(step.times, 1e-6 * step.movedBytes, 1e-6 * step.neededBytes);
        EXPECT_NEAR(step.shareOfCopying * step.seconds * 1e9, step.neededBytes, 1);
    }

    // Frames that are too large for a page as they are.
    constexpr unsigned kEdge = 700;
    result.counts.frames.reset(VoxMRCData::Create3D(kEdge, kEdge, 21));
    result.volume.facts.size = {kEdge, kEdge - 20, 21};
    std::mt19937 random(1);
    for (unsigned z = 0; z < 21; ++z)
        for (unsigned i = 0; i < kEdge * kEdge; ++i)
            result.counts.frames->GetChunkPointer(z)[i] =
                i % 97 == 0   ? vrk::FrameStack::kMissing
                : i % 89 == 0 ? static_cast<short>(z == 0 ? 20000 : 9000)
                              : static_cast<short>(static_cast<int>(random() % 30) - 5);
    const auto patterns = nlohmann::json::parse(vrk::patternViews(result));
    EXPECT_EQ(patterns["width"], patterns["bin"] == 3 ? 233 : 350);
    for (const auto& frame : patterns["frames"])
        soFar.addAll(inflated(frame));
    for (const char* key : {"x", "y"})
        soFar.addAll(unpacked(patterns["observed"][key]));
    EXPECT_NEAR(soFar.sum(), 24388129.3912, 1e-3);
}

TEST(Series, IsReadAgainAndScaledAsTheInstrumentSays) {
    const TemporaryFolder folder;
    ASSERT_TRUE(simple().write(folder / "series.mrc"));
    vrk::Session session(vrk::silence());
    vrk::RunOptions options;
    const vrk::Series plain = vrk::loadSeries(folder / "series.mrc", options, session);
    EXPECT_TRUE(*plain.again(session) == *plain.frames);
    options.instrument.emplace().pixelScale = vrk::CalibratedValue{1.02, 0, 0};
    for (const auto& [binning, scale] : {std::pair(2.0, 1.02), {1.5, 1.0}}) {
        options.instrument->pixelSize = binning * plain.facts.pixelSize;
        const auto size = [&] {
            return vrk::loadSeries(folder / "series.mrc", options, session).facts.pixelSize;
        };
        EXPECT_NEAR(size() / plain.facts.pixelSize, scale, 1e-9);
        options.pixelSize = plain.facts.pixelSize;
        EXPECT_EQ(size(), plain.facts.pixelSize);
        options.pixelSize.reset();
    }
    folder.write("series.mrc", "text");
    EXPECT_TRUE(failureOf([&] { plain.again(session); }).says("was changed"));
}

TEST(Library, RunsInTwoThreadsAsAlone) {
    const auto work = [](const vrk::TiltSeries& series, std::string& summary) {
        std::vector<std::string> warnings;
        vrk::Callbacks observer;
        observer.warning = [&](const std::string& text) { warnings.push_back(text); };
        const vrk::RunResult result = vrk::run(series, quick(), observer).value();
        summary = summaryOf(result);
        EXPECT_EQ(result.warnings, warnings);
    };
    testing::internal::CaptureStdout();
    std::string one, two;
    std::thread second([&] { work(centred(), two); });
    work(simple(), one);
    second.join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(one, summaryOf(vrk::run(simple(), quick()).value()));
    EXPECT_EQ(two, summaryOf(vrk::run(centred(), quick()).value()));
}

TEST(Library, TakesStagesOfTheCaller) {
    vrk::RunStages stages;
    int searches = 0;
    stages.searchLevels = [&](const auto& volume, const auto& options, auto& session) {
        std::vector<vrk::Level> levels = vrk::searchLevels(volume, options, session);
        ++searches;
        for (vrk::Level& level : levels)
            std::erase_if(level.reflections, [](const auto& one) { return one.tilt < -0.5; });
        return levels;
    };
    // The caller's own are given rotated frames.
    stages.reconstruct = [](const vrk::CentredSeries& frames, vrk::Session& session) {
        return vrk::reconstruct(frames, session);
    };
    const vrk::RunResult result = vrk::run(centred(), quick(), vrk::silence(), stages).value();
    EXPECT_GT(searches, 0);
    const auto rows = vrk::reflectionRows(result);
    ASSERT_GT(rows.size(), 40U);
    EXPECT_EQ(vrk::conventionalCell(result).bravais, "oC");
    const double pixel = result.facts().pixelSize;
    for (const vrk::ReflectionRow& row : rows) {
        EXPECT_GE(row.tilt, -29);
        if (!row.indexed) continue;
        EXPECT_EQ((row.h + row.k) % 2, 0) << "indices of the conventional cell";
        const auto& cell = result.indexed.conventional.cell;
        const double byCell = std::hypot(row.h / cell[0], row.k / cell[1], row.l / cell[2]);
        EXPECT_NEAR(row.spacing * byCell, 1, 0.1);
        EXPECT_NEAR(std::hypot(row.x, row.y, row.z) * pixel * row.spacing, 1e10, 1e4);
    }
    const auto none = vrk::writeReflections(result, vrk::ReflectionFile::XdsAscii, "/tmp/none");
    EXPECT_EQ(none.error().kind, vrk::FailureKind::Usage) << none.error().text;
}

/// The volume of the answer is given up for that about another axis, where nothing is found.
TEST(Library, MakesTheVolumeOfTheAnswerAgain) {
    vrk::RunStages stages;
    std::vector<double> axes;
    stages.indexReflections = [&](auto levels, const auto& lattice, const auto& volume, const auto& axis,
                                  auto& session) {
        axes.push_back(axis.angle);
        if (axes.size() > 1) throw vrk::Failure("nothing", vrk::FailureKind::NothingFound);
        vrk::Indexed indexed = vrk::indexReflections(std::move(levels), lattice, volume, axis, session);
        indexed.instrument.valid = true;
        indexed.instrument.model[vrk::InstrumentTerm::AxisTurn] = 0.05;
        return indexed;
    };
    const vrk::RunResult result = vrk::run(simple(), quick(), vrk::silence(), stages).value();
    const vrk::RunResult plain = vrk::run(simple(), quick()).value();
    const VoxMRCData &again = *result.volume.voxels, &only = *plain.volume.voxels;
    ASSERT_EQ(axes.size(), 2U);
    EXPECT_NEAR(axes[1], 22.9, 0.1);
    ASSERT_EQ(again.GetDepth(), only.GetDepth());
    for (unsigned z = 0; z < only.GetDepth(); ++z)
        ASSERT_TRUE(std::equal(again.GetChunkPointer(z), again.GetChunkPointer(z) + 128 * 128,
                               only.GetChunkPointer(z)));
}

TEST(Library, FollowsTheAxisToTheBetterAnswer) {
    struct Answer {
        int indexed, reflections;
        double rms, rmsBefore, threshold;
    };
    const Answer first = {90, 100, 1, 1, 50};  // which explains 90 * 0.9 * 0.9
    for (const auto& [turns, after, better] : {std::tuple(0.26, Answer{66, 66, 1, 1, 50}, true),
                                               {-0.24, {90, 100, 1, 1, 50}, false},
                                               {0.3, {65, 65, 1, 0.75, 50}, false},
                                               {0.3, {65, 65, 1, 0.65, 50}, true},
                                               {-0.3, {61, 61, 1, 0.65, 50}, false},
                                               {0.3, {50, 50, 0.9, 1, 60}, true},
                                               {0.3, {50, 50, 1.1, 1, 60}, false},
                                               {0.3, {50, 50, 0.9, 1, 50}, false},
                                               {0.3, {44, 50, 0.9, 1, 60}, false}}) {
        vrk::RunStages stages;
        int calls = 0;
        const double turn = turns;
        const Answer next = after;
        stages.indexReflections = [&](auto levels, const auto& lattice, const auto& volume, const auto& axis,
                                      auto& session) {
            vrk::Indexed one = vrk::indexReflections(std::move(levels), lattice, volume, axis, session);
            const bool isFirst = calls++ == 0;
            const Answer& answer = isFirst ? first : next;
            one.instrument.valid = true;
            one.instrument.model[vrk::InstrumentTerm::AxisTurn] = isFirst ? turn * vrk::kDegree : 0.0;
            one.instrument.rmsBefore = answer.rmsBefore;
            one.refined.lattice.indexed = answer.indexed;
            one.refined.lattice.reflections = answer.reflections;
            one.refined.lattice.rms = answer.rms;
            one.level.threshold = answer.threshold;
            return one;
        };
        vrk::RunOptions options = quick();
        options.crystals = 1;
        const vrk::RunResult result = vrk::run(simple(), options, vrk::silence(), stages).value();
        EXPECT_NEAR(result.axis.angle, better ? 20 + turn : 20, 1e-5) << next.indexed << ' ' << next.rms;
        EXPECT_EQ(result.axis.source, better ? "refined" : "header");
    }
}

TEST(Library, StopsWhenItIsAskedTo) {
    vrk::Callbacks observer;
    double farthest = 0;
    observer.progress = [&](const vrk::Callbacks::Progress& now) {
        farthest = std::max(farthest, now.part + now.share);
    };
    observer.stop = [&] { return farthest > 4; };
    int lines = 0;
    observer.log = [&](const char*, VRK::MessageType) { ++lines; };
    const auto result = vrk::run(simple(), quick(), observer);
    ASSERT_FALSE(result);
    EXPECT_GT(lines, 10);
    EXPECT_EQ(result.error().kind, vrk::FailureKind::Canceled);
    EXPECT_LT(farthest, 7);
    EXPECT_THROW(result.value(), vrk::Failure);
}

TEST(Library, RefusesOptionsThatNoCommandLineChecked) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    vrk::RunOptions o = quick();
    const auto refuse = [&](const auto&... wrong) {
        const auto one = [&](auto& place, const auto value) {
            const auto before = std::exchange(place, value);
            const auto result = vrk::run(simple(), o);
            place = before;
            ASSERT_FALSE(result) << value;
            EXPECT_EQ(result.error().kind, vrk::FailureKind::Usage) << result.error().text;
        };
        (one(*wrong.first, wrong.second), ...);
    };
    using std::pair;
    refuse(pair(&o.pixelSize, none), pair(&o.kiloVolts, -200), pair(&o.axis.angle, none),
           pair(&o.axis.accuracy, 5.1), pair(&o.centre.x, none), pair(&o.centre.y, none),
           pair(&o.intensities.dMin, -1), pair(&o.intensities.gain, 0), pair(&o.crystals, 10),
           pair(&o.search.threshold, none), pair(&o.search.zeroBeam, -1), pair(&o.search.resolution, -1),
           pair(&o.search.maxVoxels, 0), pair(&o.search.minVoxels, -1), pair(&o.search.centre, 4),
           pair(&o.cell.minPoints, 0), pair(&o.cell.gridSize, 51), pair(&o.cell.minLength, -1),
           pair(&o.cell.maxLength, 0), pair(&o.cell.eps, 0), pair(&o.cell.refineClusters, 101),
           pair(&o.cell.angleA, 181), pair(&o.cell.angleB, 181), pair(&o.cell.detLimit, none));
}

TEST(Library, FindsTheCellOfReflections) {
    std::vector<Eigen::Vector3d> places;
    forEachIndex(5, 4, 3, [&](int h, int k, int l) {
        if (h != 0 || k != 0 || l != 0) places.emplace_back(10.0 * h, 13.0 * k, 17.0 * l);
    });
    vrk::PeakCellOptions options;
    options.pixelSize = 1e8;
    const vrk::PeakCell cell = vrk::findCell(places, {}, options).value();
    EXPECT_NEAR(cell.symmetry.symmetrised.a, 1e10 / (17 * 1e8), 0.01);
    const std::vector<double> few(3, 1.0);
    EXPECT_EQ(vrk::findCell(places, few).error().kind, vrk::FailureKind::Usage);
    places[7].y() = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(says(vrk::findCell(places, {}).error().text, "reflection 7"));
}

}  // namespace
