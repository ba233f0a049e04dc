#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "support/RecordingLogObserver.h"

namespace {

struct Found {
    double x = 0, y = 0;
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
            EXPECT_LT(std::hypot(centres[i].x - truth.x, centres[i].y - truth.y), 0.1)
                << c.name << ", pattern " << i << ' ' << centres[i].how;
        }
    }
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
