#include "processing/PlainOpposites.h"
#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "processing/detail/BeamCentre.h"
#include "support/SoFar.h"

namespace {

std::vector<PatternCentre> centresOf(const VoxMRCData& series) {
    std::vector<PatternCentre> centres;
    EXPECT_TRUE(VoxMRCstemProcessing().findCentres(&series, centres, nullptr));
    return centres;
}

struct Truth {
    double x, y;
};

/// Drifts, with a jump after five patterns.
Truth drifting(unsigned pattern, int size) {
    const double jump = pattern >= 5 ? 1 : 0;
    return {size / 2 + 1.8 + 0.11 * pattern + 5 * jump, size / 2 - 2.2 + 0.07 * pattern - 4 * jump};
}

/// \param lost  rows below that the patterns have not
std::unique_ptr<VoxMRCData> driftingSeries(const simulated::PatternSettings& settings, unsigned patterns,
                                           unsigned lost = 0) {
    const auto size = static_cast<unsigned>(settings.size);
    auto series = makeSeries(size, size - lost, std::vector<float>(patterns, 1.0F));
    for (unsigned i = 0; i < patterns; ++i) {
        const Truth truth = drifting(i, settings.size);
        std::vector<short> pixels = simulated::pattern(settings, truth.x, truth.y, i + 1);
        pixels.resize(series->GetChunkSize());
        setPixels(*series, i, pixels);
    }
    return series;
}

std::unique_ptr<VoxMRCData> centre(VoxMRCData* series) {
    return std::unique_ptr<VoxMRCData>(VoxMRCstemProcessing().step2_CenterShift(series));
}

}  // namespace

TEST(CentreShift, WeighsOppositePixelsAsThePlainEquationsBitForBit) {
    std::mt19937 random(31);
    const auto number = [&](int from, int to) { return std::uniform_int_distribution<>(from, to)(random); };
    VRK::detail::OppositePixels fast;
    for (int run = 0; run < 60; ++run) {
        SCOPED_TRACE(run);
        cv::Mat_<float> image(number(6, 40), number(6, 40));
        for (float& value : image)
            value = std::sqrt(static_cast<float>(number(0, run % 7 == 0 ? 30000 : 60)));
        cv::Mat_<uchar> dead;
        if (run % 3 == 0) {
            dead.create(image.size());
            for (uchar& value : dead)
                value = number(0, 9) == 0 ? 255 : 0;
        }
        const auto share = [&] { return run % 5 == 0 ? 0.0 : std::uniform_real_distribution<>()(random); };
        const VRK::detail::OppositePixels::Disc disc{{number(2, image.cols - 3), number(2, image.rows - 3)},
                                                     {share(), share()},
                                                     number(2, 25),
                                                     run % 2 == 0,
                                                     run % 4 == 0};
        const plain::Opposites plain(image, dead, disc);
        fast.collect(image, dead, disc);
        ASSERT_EQ(fast.count(), plain.pairs.size());
        if (fast.count() == 0) continue;
        const VRK::detail::SymmetryEquations a = fast.equations(), b = plain.equations();
        const auto numbers = [](const VRK::detail::SymmetryEquations& e) {
            std::vector<double> all = {e.xx,      e.xy,    e.yy,      e.bx,        e.by,
                                       e.weights, e.scale, e.inliers, e.sloped[0], e.sloped[1]};
            all.insert(all.end(), e.crossed.val, e.crossed.val + 4);
            all.insert(all.end(), e.slopes.val, e.slopes.val + 4);
            return all;
        };
        EXPECT_EQ(numbers(a), numbers(b));
    }
}

TEST(CentreShift, FindsTheBeamToATenthOfAPixel) {
    struct Case {
        const char* name;
        simulated::PatternSettings settings;
        double limit = 0.1;
        unsigned patterns = 8;
        unsigned lost = 0;
    };
    const std::vector<Case> cases = {
        {"beam and halo", {}},
        {"saturated", {.beam = 2e5, .saturation = 3000}},
        {"weak beam", {.halo = 40, .beam = 100}},
        {"beam without halo", {.halo = 0}},
        {"bright reflections", {.halo = 300, .beam = 1000, .spots = 2e4}},
        {"beam stop", {.beamStopWidth = 24}},
        {"beam stop, a halo to one side", {.slope = 0.3, .beamStopWidth = 24}, 0.12},
        {"beam stop and no halo", {.halo = 0, .beamStopWidth = 20}},
        {"half behind a stop of 20 %", {.beamStopWidth = 24, .stopOffset = 24, .throughStop = 0.2}},
        {"reflections without background", {.background = 0, .halo = 0, .beam = 0}},
        {"reflections only", {.halo = 0, .beam = 0}},
        {"beam that shows through a stop darker than what surrounds it",
         {.background = 60, .halo = 0, .beam = 5000, .spots = 0, .beamStopWidth = 24, .throughStop = 0.02},
         0.15,
         5},
        {"wider than high", {.size = 160}, 0.1, 3, 32},
        {"a stop in a pattern that is wider than high",
         {.size = 160, .halo = 0, .beam = 0, .beamStopWidth = 12},
         0.1,
         3,
         25},
    };
    SoFar candidates, found;
    for (const Case& c : cases) {
        const auto series = driftingSeries(c.settings, c.patterns, c.lost);
        const std::vector<PatternCentre> centres = centresOf(*series);
        ASSERT_EQ(centres.size(), c.patterns) << c.name;
        const int width = c.settings.size, height = width - static_cast<int>(c.lost);
        VRK::detail::BeamCentreFinder finder(width, height, {});
        for (const auto& one :
             finder.patternCandidates(VRK::detail::readOnly(series->GetChunkPointer(0), width, height)))
            candidates.add(one.centre.x, one.centre.y, one.centre.symmetry, one.evidence);
        for (unsigned i = 0; i < c.patterns; ++i) {
            found.add(centres[i].x, centres[i].y, centres[i].error, centres[i].symmetry);
            const Truth truth = drifting(i, c.settings.size);
            const double off = std::hypot(centres[i].x - truth.x, centres[i].y - truth.y);
            EXPECT_LT(off, c.limit) << c.name << ", pattern " << i << ": " << centres[i].error;
        }
    }
    EXPECT_NEAR(candidates.sum(), 12047.5099, 1e-3);
    EXPECT_NEAR(found.sum(), 24900.9691400, 1e-4);
}

TEST(CentreShift, FillsGapsBetweenPatterns) {
    using VRK::detail::BeamCentre;
    constexpr auto kNone = BeamCentre::Source::None;
    const auto at = [](double x, double symmetry = 0.9) {
        return BeamCentre{
            .x = x, .y = 2 * x, .error = 0.3, .symmetry = symmetry, .source = BeamCentre::Source::Beam};
    };
    const BeamCentre gap;
    // The centre wanders by 0.2 pixels a pattern, and a fifth of a move may come at once.
    const double near = std::sqrt(0.04 + 0.09), between = std::sqrt(0.04 + 0.09 + 0.04 * 45);
    using Numbers = std::vector<double>;
    for (const auto& [centres, x, errors] :
         std::vector<std::tuple<std::vector<BeamCentre>, Numbers, Numbers>>{
             {{gap, gap, at(1), gap, gap, at(4), gap},
              {1, 1, 1, 2, 3, 4, 4},
              {std::sqrt(0.08 + 0.09), near, 0.3, between, between, 0.3, near}},
             {{at(7, 0.1)}, {7}, {0.3}}}) {
        std::vector<BeamCentre> filled = centres;
        EXPECT_TRUE(VRK::detail::completeFromNeighbours(filled));
        for (std::size_t i = 0; i < x.size(); ++i) {
            EXPECT_DOUBLE_EQ(filled[i].x, x[i]);
            EXPECT_DOUBLE_EQ(filled[i].y, 2 * x[i]);
            EXPECT_NE(filled[i].source, kNone);
            EXPECT_DOUBLE_EQ(filled[i].error, errors[i]);
        }
    }
    std::vector<BeamCentre> nothing(3);
    EXPECT_FALSE(VRK::detail::completeFromNeighbours(nothing));
    EXPECT_EQ(nothing[1].source, kNone);
}

TEST(CentreTrack, TakesTheTrackThatAllPatternsTogetherMakeMostLikely) {
    using VRK::detail::CentreCandidate;
    constexpr int kPatterns = 20;
    const auto at = [](double x, double evidence) {
        return CentreCandidate{{.x = x, .y = 50 - x, .source = PatternCentre::Source::Pattern}, evidence};
    };
    struct Case {
        const char* name;
        std::function<std::vector<CentreCandidate>(int)> candidates;
        std::function<double(int)> expected;  ///< x; below 0: left out
        bool ambiguous;
    };
    const auto drift = [](int i) { return 100 + 0.2 * i; };
    const std::vector<Case> cases = {
        {"one candidate each", [&](int i) { return std::vector{at(drift(i), 0.5)}; }, drift, false},
        {"two neighbouring patterns more symmetric between their reflections",
         [&](int i) {
             std::vector found{at(drift(i), 0.5)};
             if (i == 9 || i == 10) found.insert(found.begin(), at(drift(i) + 9, 0.9));
             return found;
         },
         drift, false},
        {"one pattern far away", [&](int i) { return std::vector{at(i == 4 ? 60 : drift(i), 0.9)}; },
         [&](int i) { return i == 4 ? -1.0 : drift(i); }, false},
        {"a step that stays",
         [&](int i) {
             return std::vector{at(drift(i) + (i > 7 ? 8 : 0), 0.6), at(30 + 7 * (i % 3), 0.5)};
         },
         [&](int i) { return drift(i) + (i > 7 ? 8 : 0); }, false},
        {"patterns that show nothing",
         [&](int i) { return i % 3 == 1 ? std::vector<CentreCandidate>{} : std::vector{at(drift(i), 0.3)}; },
         [&](int i) { return i % 3 == 1 ? -1.0 : drift(i); }, false},
        {"the same everywhere one vector aside",
         [&](int i) {
             return std::vector{at(drift(i), 0.50), at(drift(i) + 12, 0.49)};
         },
         drift, true},
    };
    for (const Case& c : cases) {
        std::vector<std::vector<CentreCandidate>> patterns;
        for (int i = 0; i < kPatterns; ++i)
            patterns.push_back(c.candidates(i));
        const VRK::detail::CentreTrack track(patterns);
        for (std::size_t i = 0; i < kPatterns; ++i) {
            const int chosen = track.chosen()[i];
            const double x = chosen < 0 ? -1 : patterns[i][static_cast<std::size_t>(chosen)].centre.x;
            EXPECT_DOUBLE_EQ(x, c.expected(static_cast<int>(i))) << c.name << ", pattern " << i;
        }
        EXPECT_EQ(track.rivalry() > 0.9, c.ambiguous) << c.name;
    }
    EXPECT_EQ(VRK::detail::CentreTrack(std::vector<std::vector<CentreCandidate>>(3)).count(), 0);
}

TEST(CentreShift, MovesTheBeamToTheMiddleAndLeavesACentredSeriesAlone) {
    simulated::PatternSettings settings;
    settings.size = 200;
    const auto series = driftingSeries(settings, 7);
    const auto moved = centre(series.get());
    const auto again = centre(moved.get());
    for (const PatternCentre& found : centresOf(*moved)) {
        EXPECT_NEAR(found.x, 99.5, 0.05);
        EXPECT_NEAR(found.y, 99.5, 0.05);
    }
    EXPECT_TRUE(*again == *moved);
}

TEST(CentreShift, TakesTheNeighboursCentreWhereNothingShows) {
    simulated::PatternSettings settings;
    settings.size = 128;
    const auto series = driftingSeries(settings, 15);
    for (const unsigned blank : {1U, 4U, 6U, 7U, 8U, 9U, 11U, 12U, 13U, 14U})
        setPixels(*series, blank, std::vector<short>(128 * 128, 0));
    RecordingLogObserver log;
    std::vector<PatternCentre> centres;
    ASSERT_TRUE(VoxMRCstemProcessing().findCentres(series.get(), centres, nullptr));
    std::string marks;  // neighbours: within a jump or far away they tell little
    for (const PatternCentre& centre : centres)
        marks += centre.source == PatternCentre::Source::Neighbours ? (centre.doubtful ? '?' : 'n')
                 : centre.doubtful                                  ? '!'
                                                                    : (centre.jumped ? 'j' : '.');
    EXPECT_EQ(marks, ".n..?j????.nnn?");
    centre(series.get());
    EXPECT_EQ(log.count("taken from the neighbouring patterns", VRK::Normal), 10);
    EXPECT_NEAR(centres[1].x, 0.5 * (centres[0].x + centres[2].x), 1e-9);

    // Nothing anywhere: nothing moves.
    for (const short value : {short{0}, short{700}}) {
        const auto empty = makeSeries(64, 64, {0, 1});
        for (unsigned i = 0; i < 2; ++i)
            setPixels(*empty, i, std::vector<short>(64 * 64, value));
        const auto same = centre(empty.get());
        EXPECT_TRUE(*same == *empty);
    }
    EXPECT_EQ(log.count("found in no pattern", VRK::Warning), 2);
}

TEST(CentreShift, TellsWhatItFinds) {
    simulated::PatternSettings settings;
    settings.beamStopWidth = 24;
    const auto series = driftingSeries(settings, 8);
    for (unsigned i = 0; i < 8; ++i)
        for (int n = 0; n < 256; ++n)
            series->GetChunkPointer(i)[200 * 256 + n] = series->GetChunkPointer(i)[n * 256 + 60] = 0;
    RecordingLogObserver log;
    centre(series.get());
    EXPECT_EQ(log.count("Centre of pattern 5: ", VRK::Normal), 1);
    EXPECT_EQ(log.count(" (symmetry of the pattern, +- 0.0", VRK::Normal), 8);
    EXPECT_EQ(log.count(", after a jump)", VRK::Normal), 1);
    for (const char* text : {"Shadow of a bar of ", "The detector has a cross of 1 rows and 1 columns.",
                             "Pixels in the shadow of the beam stop or on the cross: "})
        EXPECT_EQ(log.count(text, VRK::Normal), 1) << text;
}
