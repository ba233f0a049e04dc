#include "processing/SamplingGeometry.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <numbers>
#include <tuple>

#include "processing/PlainReconstruction.h"
#include "processing/SeriesFactory.h"

TEST(SamplingGeometry, DepthIsTheSineOfTheLargestTilt) {
    struct Case {
        unsigned width;
        std::vector<float> tilts;
        unsigned depth;
    };
    const std::vector<Case> cases = {
        {512, range(-60, 60, 1), 444}, {512, {-10, 30}, 256}, {512, {-30, 10}, 256}, {100, {-90, 90}, 100},
        {512, {0, 0, 0}, 0},           {100, {-60, 120}, 87}, {7, {5}, 1},           {512, {}, 0},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SamplingGeometry::depthOf(c.width, c.tilts), c.depth) << c.width;
}

TEST(SamplingGeometry, BracketsTilts) {
    const std::vector<float> tilts = {-20, -5, 0, 7};
    struct Case {
        float angle;
        int lower, upper;
    };
    const std::vector<Case> cases = {{-21, -1, 0}, {-20, -1, 0}, {-19, 0, 1},  {-5, 0, 1},
                                     {-4, 1, 2},   {7, 2, 3},    {7.1F, 4, -1}};
    for (const Case& c : cases) {
        int lower = 99, upper = 99;
        EXPECT_TRUE(SamplingGeometry::getLowerAndUpperTiltSliceNr(c.angle, tilts, &lower, &upper));
        EXPECT_EQ(lower, c.lower) << c.angle;
        EXPECT_EQ(upper, c.upper) << c.angle;
    }
}

TEST(SamplingGeometry, AgreesWithThePlainRule) {
    EXPECT_TRUE(rc::check("every column of random geometries", [] {
        const auto width = static_cast<unsigned>(*rc::gen::inRange(1, 40));
        auto tilts = *rc::gen::nonEmpty(rc::gen::container<std::vector<float>>(
            rc::gen::map(rc::gen::inRange(-1000, 1001), [](int i) { return static_cast<float>(i) * 0.1F; })));
        std::sort(tilts.begin(), tilts.end());
        const unsigned depth = SamplingGeometry::depthOf(width, tilts);
        RC_ASSERT(depth == plain::depthOf(static_cast<int>(width), tilts));
        const SamplingGeometry geometry(width, tilts, depth);
        for (unsigned layer = 0; layer < depth; ++layer)
            for (unsigned x = 0; x < width; ++x) {
                const auto s = geometry.sample(x, layer);
                const plain::Sources p = plain::sourcesOf(static_cast<int>(width), depth, tilts,
                                                          static_cast<int>(x), static_cast<int>(layer));
                RC_ASSERT(s.inside() == p.inside);
                RC_ASSERT(!p.inside ||
                          std::tie(s.lower, s.upper, s.inner, s.outer, s.innerColumn, s.outerColumn) ==
                              std::tie(p.lower, p.upper, p.inner, p.outer, p.innerColumn, p.outerColumn));
            }
        RC_ASSERT(!geometry.sample(width, 0).inside());
        RC_ASSERT(!geometry.sample(0, depth).inside());
    }));
}

TEST(SamplingGeometry, TellsWhereTheSamplesLie) {
    // An even width: the axis runs between columns 7 and 8. One voxel right and left of it take columns
    // (7, 8) and (7, 6): the mean place of the samples is not mirrored.
    const std::vector<float> tilts = range(-60, 60, 1);
    const SamplingGeometry even(16, tilts, SamplingGeometry::depthOf(16, tilts));
    const unsigned middle = even.depth() / 2;
    const auto right = even.sample(8, middle);
    const auto left = even.sample(7, middle);
    EXPECT_DOUBLE_EQ(even.meanRadius(right), 0.0);
    EXPECT_DOUBLE_EQ(even.meanRadius(left), -1.0);

    const std::vector<float> two = {10, 20};
    const SamplingGeometry odd(33, two, 13);
    const auto sample = odd.sample(26, 9);  // dx = 10, dz = 3, seen at 16.7 degrees and 10.4 pixels
    ASSERT_TRUE(sample.inside());
    EXPECT_DOUBLE_EQ(odd.meanRadius(sample), 10.5);
    EXPECT_DOUBLE_EQ(odd.meanTilt(sample), 15.0 * std::numbers::pi / 180.0);

    const auto outside = odd.sample(0, 0);
    EXPECT_FALSE(outside.inside());
    EXPECT_EQ(odd.meanRadius(outside), 0.0);
    EXPECT_EQ(odd.meanTilt(outside), 0.0);
}
