#include "reflections/FindReflexes.h"

#include <sys/resource.h>

#include <new>

#include "PlainSearch.h"
#include "TestVolume.h"
#include "reflections/detail/RegionSeeds.h"

namespace {

ReflexVectorPtr search(VoxMRCData& volume, Parameter& parameter) {
    return ReflexVectorPtr(FindReflexes().findAllReflexes(&volume, &parameter, true, nullptr));
}

/// Finds everything: threshold 1 and no limits.
Parameter unlimited() {
    Parameter parameter;
    parameter.setThreshold(1.0);
    parameter.setMinCountOfVoxel(0);
    parameter.setMaxCountOfVoxel(std::numeric_limits<int>::max());
    parameter.setCutOffZeroBeam(false);
    return parameter;
}

TEST(FindReflexes, FindsWhatThePlainSearchFindsInTheSameOrder) {
    std::size_t compared = 0;
    for (unsigned seed = 0; seed < 600; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto pick = [&](auto... options) {
            const double values[] = {static_cast<double>(options)...};
            return values[random() % sizeof...(options)];
        };
        // From plateaus of few levels to values that make float sums depend on their order.
        const int spread = static_cast<int>(pick(1, 3, 50, 32767));
        const auto volume = randomVolume(random, spread);
        const double extreme =
            pick(-1e300, -32768.5, -32768.0, 32766.5, 32767.0, 32767.5, 1e300, std::nan(""));
        Parameter parameter;
        parameter.setThreshold(seed % 10 == 0
                                   ? extreme
                                   : std::uniform_int_distribution<int>(-spread - 1, spread + 1)(random) +
                                         pick(0.0, 0.25, 0.5, 1e-9));
        parameter.setMinCountOfVoxel(static_cast<int>(pick(0, 0, 1, 3)));
        parameter.setMaxCountOfVoxel(static_cast<int>(pick(2, 50, 5000, 5000)));
        parameter.setCutOffZeroBeam(random() % 3 == 0);
        parameter.setMinDistToZeroBeam(pick(0.5, 1.0, 2.0));
        parameter.setLimitResolution(random() % 3 == 0);
        parameter.setLimitOfResolution(pick(1.0, 3.0, 4.5));
        parameter.setWhichReflectionMiddleShouldUsed(static_cast<int>(pick(1, 2, 3)));
        const std::vector<PlainReflection> expected = plainSearch(*volume, parameter);
        const ReflexVectorPtr found = search(*volume, parameter);
        ASSERT_EQ(found->size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i)
            expectSame(dynamic_cast<ReflexOnGrid&>(*(*found)[i]), expected[i]);
        compared += expected.size();
        // After a look from a lower threshold, and ending early where there are too many.
        FindReflexes prepared;
        prepared.lookThrough(volume.get(), parameter.getThreshold() - pick(0.0, 0.5, 20.0));
        const auto most = static_cast<std::size_t>(pick(2, 5, 1000));
        prepared.setMostReflections(most);
        const ReflexVectorPtr again(prepared.findAllReflexes(volume.get(), &parameter, true, nullptr));
        if (expected.size() > most) {
            ASSERT_GT(again->size(), most);
            continue;
        }
        ASSERT_EQ(again->size(), expected.size());
        for (std::size_t i = 0; i < again->size(); ++i)
            expectSame(dynamic_cast<ReflexOnGrid&>(*(*again)[i]), expected[i]);
    }
    EXPECT_GT(compared, 1000U);
}

TEST(RegionSeeds, AreTheForegroundOfBothParitiesInOrder) {
    std::mt19937 random(2);
    const auto large = makeVolume({200, 33, 26});
    for (unsigned i = 0; i < 200 * 33 * 26; ++i)
        setVoxel(*large, i / 200 % 33, i % 200, i / 6600,
                 static_cast<short>(random() % 90 < 3 ? random() : 0));
    for (unsigned run = 0; run < 60; ++run) {
        const auto small = randomVolume(random, 9);
        const VoxMRCData& volume = run < 3 ? *large : *small;
        const int limit = run % 3 == 0 ? -32768 : run % 3 == 1 ? 1 : 8;
        VRK::detail::RegionSeeds seeds(volume, limit);
        seeds.keepValues(volume);
        const auto d = [&](unsigned i) { return static_cast<int>(volume.GetDimSize(i)); };
        for (const int parity : {0, 1}) {
            std::vector<int> numbers;
            std::vector<short> values;
            for (int x = parity; x < d(1); x += 2)
                for (int y = parity; y < d(0); y += 2)
                    for (int z = parity; z < d(2); z += 2) {
                        const short value = volume.GetChunkPointer(static_cast<unsigned>(z))[x * d(0) + y];
                        if (value < limit) continue;
                        numbers.push_back((x * d(0) + y) * d(2) + z);
                        values.push_back(value);
                    }
            ASSERT_EQ((parity == 0 ? seeds.even : seeds.odd).numbers, numbers);
            ASSERT_EQ((parity == 0 ? seeds.even : seeds.odd).values, values);
        }
    }
}

TEST(FindReflexes, ReportsProgressAndCancels) {
    const auto volume = makeVolume({4, 5, 3}, std::vector<short>(60, 5));
    Parameter parameter = unlimited();
    RecordingProgressObserver observer;
    FindReflexes finder;
    finder.registerObserver(&observer);
    ReflexVectorPtr(finder.findAllReflexes(volume.get(), &parameter, true, nullptr));
    EXPECT_EQ(observer.titles, std::vector<std::string>{" "});
    EXPECT_EQ(observer.steps(), 6);
    EXPECT_EQ(observer.updates, (std::vector<int>{1, 2, 3, 4, 5, 6}));

    RecordingProgressObserver stopping(2);
    finder.registerObserver(&stopping);
    EXPECT_EQ(finder.findAllReflexes(volume.get(), &parameter, true, nullptr), nullptr);
    EXPECT_EQ(stopping.updates.size(), 2U);
}

TEST(FindReflexes, RefusesWhatItCannotSearch) {
    Parameter parameter;
    RecordingLogObserver log;
    VoxMRCData empty;
    EXPECT_TRUE(search(empty, parameter)->empty());
    EXPECT_TRUE(log.messages.empty());
    for (const bool quiet : {true, false}) {
        EXPECT_EQ(FindReflexes().findAllReflexes(nullptr, &parameter, quiet, nullptr), nullptr);
        EXPECT_EQ(FindReflexes().findAllReflexes(&empty, nullptr, quiet, nullptr), nullptr);
        EXPECT_EQ(log.messages.size(), quiet ? 0U : 6U);
    }
    EXPECT_EQ(log.count("no volume or no parameters", VRK::Error), 2);
}

// The sanitizers' own memory does not fit under the limit.
#if !defined(__SANITIZE_ADDRESS__)
TEST(FindReflexesDeathTest, PassesOnThatMemoryDoesNotSuffice) {
    const auto search = [](bool quiet) {
        const auto volume = makeVolume({256, 256, 128});
        Parameter parameter;
        RecordingLogObserver log;
        const rlimit limit = {1, 1};  // what is there stays, nothing large can be added
        setrlimit(RLIMIT_AS, &limit);
        try {
            FindReflexes().findAllReflexes(volume.get(), &parameter, quiet, nullptr);
        } catch (const std::bad_alloc&) {
            std::_Exit(log.has("no memory", VRK::Error) == quiet ? 1 : 0);
        }
        std::_Exit(2);
    };
    EXPECT_EXIT(search(true), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(search(false), testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
