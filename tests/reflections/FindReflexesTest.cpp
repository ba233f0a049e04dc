#include "reflections/FindReflexes.h"

#include <sys/resource.h>

#include <new>

#include "PlainSearch.h"
#include "TestVolume.h"

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
        Parameter parameter;
        parameter.setThreshold(std::uniform_int_distribution<int>(-spread - 1, spread + 1)(random) +
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
        const bool tooMany = expected.size() > most;
        if (tooMany) {
            ASSERT_GT(again->size(), most);
        } else {
            ASSERT_EQ(again->size(), expected.size());
        }
        for (std::size_t i = 0; i < again->size() && !tooMany; ++i)
            expectSame(dynamic_cast<ReflexOnGrid&>(*(*again)[i]), expected[i]);
    }
    EXPECT_GT(compared, 1000U);
}

TEST(FindReflexes, EveryThresholdDividesTheValuesAsFloatComparisonDoes) {
    std::vector<short> values(65536);
    std::iota(values.begin(), values.end(), short{-32768});
    for (const double threshold : {-1e300, -32768.5, -32768.0, -0.5, 0.0, 0.5, 124.99999999, 125.0, 32766.5,
                                   32767.0, 32767.5, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
        // One row along y, so that the foreground is one region.
        const auto volume = makeVolume({65536, 1, 1}, values);
        Parameter parameter = unlimited();
        parameter.setThreshold(threshold);
        const PlainVolume plain(*volume, threshold);
        int foreground = 0;
        for (int i = 0; i < 65536; ++i)
            foreground += plain.background(i) ? 0 : 1;
        // A last voxel at an odd y has no seed; the row's end at 65535 stands alone only for 32767.
        const ReflexVectorPtr found = search(*volume, parameter);
        const int expected = foreground == 1 ? 0 : foreground;
        EXPECT_EQ(found->empty() ? 0 : found->front()->getNumberOfVoxels(), expected) << threshold;
    }
}

TEST(FindReflexes, ManySeedsKeepTheirOrder) {
    const auto volume = makeVolume({36, 40, 44});
    for (unsigned x = 0; x < 40; ++x)
        for (unsigned y = x % 2; y < 36; y += 2)
            for (unsigned z = x % 2; z < 44; z += 2)
                setVoxel(*volume, x, y, z, 9);
    Parameter parameter = unlimited();
    const ReflexVectorPtr found = search(*volume, parameter);
    std::size_t next = 0;
    ASSERT_EQ(found->size(), 2U * 20 * 18 * 22);
    for (const int parity : {0, 1})
        for (int x = parity; x < 40; x += 2)
            for (int y = parity; y < 36; y += 2)
                for (int z = parity; z < 44; z += 2)
                    ASSERT_TRUE((*found)[next++]->isInside(x, y, z));
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
