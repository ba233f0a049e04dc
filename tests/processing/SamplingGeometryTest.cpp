#include "processing/SamplingGeometry.h"

#include <rapidcheck.h>

#include "processing/PlainReconstruction.h"
#include "processing/SeriesFactory.h"

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
    EXPECT_EQ(SamplingGeometry::depthOf(512, tilts), 444U) << "the sine of the largest tilt";
    EXPECT_EQ(SamplingGeometry::depthOf(512, {}), 0U);
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
