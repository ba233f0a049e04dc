// Loops that threads share give what one thread gives.

#include <atomic>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "foundation/SharedLoop.h"
#include "pipeline/base/Session.h"
#include "pipeline/base/Workers.h"
#include "processing/RecordedPixels.h"
#include "processing/SeriesFactory.h"
#include "processing/ShadowMask.h"
#include "processing/SimulatedPatterns.h"
#include "processing/VoxMRCstemProcessing.h"
#include "support/TemporaryFolder.h"

namespace {

using Data = std::unique_ptr<VoxMRCData>;

class Listener : public vrk::Observer {
public:
    void logged(const char* message, VRK::MessageType) override {
        EXPECT_EQ(std::this_thread::get_id(), m_thread);
        messages.emplace_back(message);
    }
    void progressed(int, int) override { EXPECT_EQ(std::this_thread::get_id(), m_thread); }

    std::vector<std::string> messages;

private:
    std::thread::id m_thread = std::this_thread::get_id();
};

void say(const std::string& text) {
    VRKLogger::getInstance()->log(text);
}

TEST(Workers, DoEveryItemOnceAndTellInOrder) {
    constexpr std::size_t kItems = 200;
    Listener listener;
    vrk::Session session(listener);
    const vrk::Workers workers(4);
    ASSERT_EQ(VRK::lanes(), 4u);
    std::vector<std::atomic<int>> busy(VRK::lanes());
    std::vector<int> done(kItems, 0);
    std::size_t told = 0;
    EXPECT_TRUE(VRK::shareItems(
        kItems,
        [&](std::size_t item, std::size_t lane) {
            EXPECT_EQ(busy[lane]++, 0) << "a lane does one item at a time";
            EXPECT_EQ(VRK::lanes(), 1u) << "loops within an item are not shared";
            if (item % 7 == 0) std::this_thread::yield();
            ++done[item];
            say(std::to_string(item));
            --busy[lane];
        },
        [&](std::size_t prefix) {
            EXPECT_GE(prefix, told);
            EXPECT_LT(prefix, kItems) << "asked as long as there is something to stop";
            EXPECT_EQ(listener.messages.size(), prefix) << "what is done was told";
            told = prefix;
            return true;
        }));
    EXPECT_EQ(done, std::vector<int>(kItems, 1));
    const vrk::SharedLoopCost cost = workers.loops().back();
    EXPECT_EQ(cost.items, kItems);
    EXPECT_TRUE(cost.longest > 0 && cost.longest <= cost.all);
    ASSERT_EQ(listener.messages.size(), kItems);
    for (std::size_t i = 0; i < kItems; ++i)
        EXPECT_EQ(listener.messages[i], std::to_string(i));
}

TEST(Workers, ThrowWhatTheFirstItemThrewAndStopOnRequest) {
    // So many and so slow that none of the threads does all the rest while another is not given a core.
    constexpr std::size_t kItems = 10'000;
    for (const int jobs : {1, 3}) {
        const vrk::Workers workers(jobs);
        std::atomic<std::size_t> begun = 0;
        const auto begin = [&](std::size_t item) {
            ++begun;
            if (item > 8) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        };
        try {
            VRK::shareItems(kItems, [&](std::size_t item, std::size_t) {
                begin(item);
                if (item == 5 || item == 6) throw std::runtime_error(std::to_string(item));
            });
            ADD_FAILURE() << "nothing thrown";
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "5");
        }
        EXPECT_LT(begun, kItems);
        begun = 0;
        EXPECT_FALSE(VRK::shareItems(
            kItems, [&](std::size_t item, std::size_t) { begin(item); },
            [](std::size_t done) { return done < 4; }));
        EXPECT_GE(begun, 4u);
        EXPECT_LT(begun, kItems);
    }
}

TEST(Workers, LeaveTheWorkToThoseOfTheirThread) {
    const vrk::Workers outer(3);
    {
        const vrk::Workers inner(5);
        EXPECT_EQ(VRK::lanes(), 3u);
    }
    EXPECT_EQ(VRK::lanes(), 3u);
    const std::jthread other([] { EXPECT_EQ(VRK::lanes(), 1u) << "of this thread alone"; });
}

TEST(Workers, DoWorkBesideTheirThread) {
    for (const int jobs : {1, 3}) {
        Listener listener;
        vrk::Session session(listener);
        const vrk::Workers workers(jobs);
        vrk::Workers::Aside good([](std::size_t, std::size_t) { say("beside"); });
        vrk::Workers::Aside bad([](std::size_t, std::size_t) { throw std::runtime_error("beside"); });
        const vrk::Workers::Aside unasked([](std::size_t, std::size_t) { say("unasked"); });
        VRK::shareItems(30, [](std::size_t, std::size_t) { say("item"); });
        EXPECT_EQ(listener.messages, std::vector<std::string>(30, "item")) << "told when it is asked for";
        good.finish();
        EXPECT_EQ(listener.messages.back(), "beside");
        EXPECT_THROW(bad.finish(), std::runtime_error);
    }
}

/// Patterns with a beam, a halo, spots and a hot pixel; some show no beam.
Data someSeries() {
    Data series = makeSeries(96, 96, range(-44, 44, 4));
    for (unsigned z = 0; z < series->GetDepth(); ++z) {
        simulated::PatternSettings settings;
        settings.size = 96;
        settings.beam = z % 9 == 4 ? 0.0 : 3000.0;
        settings.halo = settings.beam / 30;
        setPixels(*series, z, simulated::pattern(settings, 47.5 + 0.2 * z, 46.0 - 0.1 * z, z));
        series->GetChunkPointer(z)[(z * 131) % (96 * 96)] = 20000;
    }
    return series;
}

void expectSame(const VoxMRCData& one, const VoxMRCData& other, const std::string& step) {
    const auto limits = [](const mrcH& h) { return std::tuple(h.amin, h.amax, h.amean); };
    EXPECT_EQ(limits(one.m_Header), limits(other.m_Header)) << step;
    EXPECT_TRUE(one == other) << step;
}

/// Every operation of a run on frames, one after the other, and what was logged.
struct Chain {
    std::vector<std::pair<std::string, Data>> results;
    std::vector<PatternCentre> centres;
    std::vector<std::string> messages;

    Chain(VoxMRCData& series, const std::string& file) {
        // How long reading took is told.
        results.emplace_back("file", VoxMRCFileHandler().readMRCFile(file));
        Listener listener;
        vrk::Session session(listener);
        VoxMRCstemProcessing processing;
        processing.registerObserver(&session.progress());
        const auto add = [&](const char* name, VoxMRCData* result) {
            ASSERT_TRUE(result) << name;
            results.emplace_back(name, result);
        };
        add("hot spots", processing.HotSpotFilterImageStack(&series));
        const VoxMRCData* clean = results.back().second.get();
        ShadowMask shadows;
        EXPECT_TRUE(processing.findCentres(clean, centres, &shadows));
        const RecordedPixels recorded(96, 96, {0, 0, 96, 96}, shadows, centres);
        add("centre", processing.moveToCentre(clean, centres));
        add("background", processing.step1_BackgroundSubstraction(results.back().second.get(), recorded));
        add("smooth", processing.smooth(results.back().second.get(), 0.7));
        add("turn", processing.turnUndistorted(results.back().second.get(), 31.0, {}));
        add("volume", processing.recoByAngle(results.back().second.get(), 1e8, 1, true));
        add("binned", processing.RebinImageStack(results[5].second.get()));
        messages = listener.messages;
    }
};

TEST(SharedPatterns, GiveTheFilesAndMessagesOfOneThread) {
    const Data series = someSeries();
    const TemporaryFolder folder;
    const std::string file = folder / "series.mrc";
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(series.get(), file));
    const Chain alone(*series, file);
    for (const int jobs : {2, 5}) {
        const vrk::Workers workers(jobs);
        const Chain shared(*series, file);
        for (std::size_t i = 0; i < alone.results.size(); ++i)
            expectSame(*alone.results[i].second, *shared.results[i].second, alone.results[i].first);
        for (std::size_t i = 0; i < alone.centres.size(); ++i)
            EXPECT_EQ(std::tuple(shared.centres[i].x, shared.centres[i].y),
                      std::tuple(alone.centres[i].x, alone.centres[i].y));
        EXPECT_EQ(shared.messages, alone.messages);
    }
}

}  // namespace
