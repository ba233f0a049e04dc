#include "processing/SamplingGeometry.h"

#include "processing/PlainReconstruction.h"
#include "processing/SeriesFactory.h"

TEST(SamplingGeometry, AgreesWithThePlainRule) {
    EXPECT_TRUE(rc::check("every column of random geometries", [] {
        const auto width = static_cast<unsigned>(*rc::gen::inRange(1, 40));
        const std::vector<float> tilts = *plain::ascendingTilts();
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
                const double radius = p.inside ? 0.5 * (p.innerColumn + p.outerColumn + 1.0 - width) : 0;
                const double tilt =
                    p.inside ? 0.5 * (tilts[std::size_t(p.lower)] + tilts[std::size_t(p.upper)]) : 0;
                RC_ASSERT(std::abs(geometry.meanRadius(s) - radius) < 1e-9);
                RC_ASSERT(std::abs(geometry.meanTilt(s) - tilt * std::numbers::pi / 180) < 1e-6);
            }
        RC_ASSERT(!geometry.sample(width, 0).inside());
        RC_ASSERT(!geometry.sample(0, depth).inside());
    }));
}

TEST(SamplingGeometry, IsAsDeepAsTheSineOfTheLargestTilt) {
    EXPECT_EQ(SamplingGeometry::depthOf(512, range(-60, 60, 1)), 444U);
    EXPECT_EQ(SamplingGeometry::depthOf(512, {}), 0U);
}
