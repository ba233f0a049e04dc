#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "processing/detail/BeamCentre.h"
#include "support/RecordingLogObserver.h"

namespace {

struct Found {
    double x = 0, y = 0, error = 0;
    std::string how;
};

/// The centres that the log tells.
std::vector<Found> centresOf(const RecordingLogObserver& log) {
    std::vector<Found> centres;
    for (const auto& message : log.messages) {
        Found found;
        unsigned pattern = 0;
        if (std::sscanf(message.text.c_str(), "Centre of pattern %u: %lf %lf", &pattern, &found.x,
                        &found.y) != 3)
            continue;
        EXPECT_EQ(pattern, centres.size());
        found.how = message.text.substr(message.text.find('('));
        found.error = std::stod(message.text.substr(message.text.find("+- ") + 3));
        centres.push_back(found);
    }
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

std::unique_ptr<VoxMRCData> driftingSeries(const simulated::PatternSettings& settings, unsigned patterns) {
    auto series = makeSeries(static_cast<unsigned>(settings.size), static_cast<unsigned>(settings.size),
                             std::vector<float>(patterns, 1.0F));
    for (unsigned i = 0; i < patterns; ++i) {
        const Truth truth = drifting(i, settings.size);
        setPixels(*series, i, simulated::pattern(settings, truth.x, truth.y, i + 1));
    }
    return series;
}

std::unique_ptr<VoxMRCData> centre(VoxMRCData* series) {
    return std::unique_ptr<VoxMRCData>(VoxMRCstemProcessing().step2_CenterShift(series));
}

}  // namespace

TEST(CentreShift, FindsTheBeamToATenthOfAPixel) {
    struct Case {
        const char* name;
        void (*change)(simulated::PatternSettings&);
    };
    const std::vector<Case> cases = {
        {"beam and halo", [](auto&) {}},
        {"saturated",
         [](auto& s) {
             s.beam = 2e5;
             s.saturation = 3000;
         }},
        {"weak beam",
         [](auto& s) {
             s.beam = 100;
             s.halo = 40;
         }},
        {"beam without halo", [](auto& s) { s.halo = 0; }},
        {"hardly any background", [](auto& s) { s.background = 0.3; }},
        {"reflections brighter than the beam",
         [](auto& s) {
             s.spots = 20000;
             s.beam = 1000;
             s.halo = 300;
         }},
        {"beam stop", [](auto& s) { s.beamStopWidth = 24; }},
        {"beam stop and no halo",
         [](auto& s) {
             s.beamStopWidth = 20;
             s.halo = 0;
         }},
        {"reflections only",
         [](auto& s) {
             s.beam = 0;
             s.halo = 0;
         }},
    };
    constexpr unsigned kPatterns = 8;
    double squares = 0, measured = 0;
    for (const Case& c : cases) {
        simulated::PatternSettings settings;
        c.change(settings);
        const auto series = driftingSeries(settings, kPatterns);
        RecordingLogObserver log;
        const auto result = centre(series.get());
        const std::vector<Found> centres = centresOf(log);
        ASSERT_EQ(centres.size(), kPatterns) << c.name;
        for (unsigned i = 0; i < kPatterns; ++i) {
            const Truth truth = drifting(i, settings.size);
            const double off = std::hypot(centres[i].x - truth.x, centres[i].y - truth.y);
            EXPECT_LT(off, 0.1) << c.name << ", pattern " << i << ' ' << centres[i].how;
            squares += off * off / (2 * centres[i].error * centres[i].error);
            ++measured;
        }
    }
    // The uncertainties are what they say, give or take.
    EXPECT_GT(squares / measured, 0.3);
    EXPECT_LT(squares / measured, 3.0);
}

TEST(CentreShift, DoesNotDependOnHowThePatternLies) {
    constexpr int kWide = 160, kHigh = 128;
    for (const auto& [beam, stop] : {std::pair{20000.0, 0}, {0.0, 0}, {0.0, 12}}) {
        simulated::PatternSettings settings;
        settings.size = kWide;
        settings.beam = beam;
        settings.halo = beam > 0 ? 900 : 0;
        settings.beamStopWidth = stop;
        std::vector<std::vector<Found>> found;
        for (const int way : {0, 1, 2, 3}) {  // as it is, mirrored along x, along y, transposed
            const int width = way == 3 ? kHigh : kWide, height = way == 3 ? kWide : kHigh;
            const auto series = makeSeries(static_cast<unsigned>(width), static_cast<unsigned>(height),
                                           std::vector<float>(3, 1.0F));
            for (unsigned i = 0; i < 3; ++i) {
                const auto pattern = simulated::pattern(settings, 77.3 + i, 70.8 - 2 * i, i);
                for (int y = 0; y < height; ++y)
                    for (int x = 0; x < width; ++x) {
                        const int u = way == 1 ? kWide - 1 - x : way == 3 ? y : x;
                        const int v = way == 2 ? kHigh - 1 - y : way == 3 ? x : y;
                        series->GetChunkPointer(i)[y * width + x] =
                            pattern[static_cast<std::size_t>(v * kWide + u)];
                    }
            }
            RecordingLogObserver log;
            centre(series.get());
            found.push_back(centresOf(log));
        }
        for (std::size_t i = 0; i < 3; ++i) {
            const Found& f = found[0][i];
            const Truth places[] = {{f.x, f.y}, {kWide - 1 - f.x, f.y}, {f.x, kHigh - 1 - f.y}, {f.y, f.x}};
            for (std::size_t way = 1; way < 4; ++way) {
                EXPECT_NEAR(found[way][i].x, places[way].x, 0.01) << beam << ' ' << stop << ' ' << way;
                EXPECT_NEAR(found[way][i].y, places[way].y, 0.01) << beam << ' ' << stop << ' ' << way;
                EXPECT_NEAR(found[way][i].error, f.error, 0.03 * f.error);
            }
        }
    }
}

TEST(CentreShift, FillsGapsBetweenPatternsAndDropsWhatTheyContradict) {
    using VRK::detail::BeamCentre;
    constexpr auto kNone = BeamCentre::Source::None;
    const auto at = [](double x, double symmetry = 0.9) {
        return BeamCentre{.x = x, .y = 2 * x, .symmetry = symmetry, .source = BeamCentre::Source::Beam};
    };
    const BeamCentre gap;
    const struct {
        std::vector<BeamCentre> centres;
        std::vector<double> x;  ///< after contradictions were dropped and gaps filled
    } cases[] = {
        {{gap, at(1), gap, gap, at(4), gap}, {1, 1, 2, 3, 4, 4}},
        {{at(1), at(9, 0.3), at(3)}, {1, 2, 3}},      // away from its neighbours and hardly symmetric
        {{at(1), at(9, 0.5), at(3)}, {1, 9, 3}},      // symmetric enough
        {{at(1), at(3.2, 0.3), at(3)}, {1, 3.2, 3}},  // not far away
        {{at(1), at(3.4, 0.3), at(3)}, {1, 2, 3}},
        {{at(7, 0.1)}, {7}},
    };
    for (const auto& test : cases) {
        std::vector<BeamCentre> centres = test.centres;
        VRK::detail::discardContradicted(centres);
        EXPECT_TRUE(VRK::detail::completeFromNeighbours(centres));
        for (std::size_t i = 0; i < centres.size(); ++i) {
            EXPECT_DOUBLE_EQ(centres[i].x, test.x[i]);
            EXPECT_DOUBLE_EQ(centres[i].y, 2 * test.x[i]);
            EXPECT_NE(centres[i].source, kNone);
        }
    }
    std::vector<BeamCentre> nothing(3);
    EXPECT_FALSE(VRK::detail::completeFromNeighbours(nothing));
    EXPECT_EQ(nothing[1].source, kNone);
}

TEST(CentreShift, MovesTheBeamToTheMiddleAndLeavesACentredSeriesAlone) {
    simulated::PatternSettings settings;
    settings.size = 200;
    const auto series = driftingSeries(settings, 7);
    RecordingLogObserver log;
    const auto moved = centre(series.get());
    log.messages.clear();
    const auto again = centre(moved.get());
    for (const Found& found : centresOf(log)) {
        EXPECT_NEAR(found.x, 99.5, 0.05);
        EXPECT_NEAR(found.y, 99.5, 0.05);
    }
    EXPECT_TRUE(*again == *moved);
}

TEST(CentreShift, TakesTheNeighboursCentreWhereNothingShows) {
    simulated::PatternSettings settings;
    settings.size = 128;
    const auto series = driftingSeries(settings, 5);
    setPixels(*series, 2, std::vector<short>(128 * 128, 0));
    RecordingLogObserver log;
    const auto result = centre(series.get());
    const std::vector<Found> centres = centresOf(log);
    ASSERT_EQ(centres.size(), 5U);
    EXPECT_NE(centres[2].how.find("neighbouring patterns"), std::string::npos);
    EXPECT_NEAR(centres[2].x, 0.5 * (centres[1].x + centres[3].x), 1e-3);

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
