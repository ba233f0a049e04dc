#include "tiltaxis/ReflexMerger2d.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "tiltaxis/ReflectionTransformation.h"
#include "tiltaxis/Reflex2d.h"

namespace {

struct Spot {
    int pattern;
    double u, v, intensity;
};

ReflexVectorPtr listOf(const std::vector<Spot>& spots) {
    ReflexVectorPtr list(new ReflexVector);
    for (const Spot& spot : spots) {
        auto reflex = std::make_unique<Reflex2d>(spot.pattern, 2.0 * spot.pattern, spot.u, spot.v);
        reflex->setIntensity(spot.intensity);
        list->append(ReflexPtr(reflex.release()));
    }
    return list;
}

const Reflex2d& at(const ReflexVectorPtr& list, std::size_t i) {
    return dynamic_cast<const Reflex2d&>(*(*list)[i]);
}

}  // namespace

TEST(ReflectionTransformationTest, TurnsTheAxisToVAndTiltsAboutIt) {
    const double t = 37.4 * M_PI / 180;
    // On the axis, at a right angle to it, and the first one as seen after half a turn.
    const ReflexVectorPtr spots =
        listOf({{0, -10 * std::sin(t), 10 * std::cos(t), 1}, {15, 10 * std::cos(t), 10 * std::sin(t), 1}});
    const ReflexVectorPtr turned(
        ReflectionTransformation::rotate2DReflectionsInImagePlane(spots.get(), 37.4));
    ReflectionTransformation::transformTo3DPositions(turned.get());
    const double expected[2][3] = {{0, 10, 0}, {10 * std::cos(M_PI / 6), 0, 10 * std::sin(M_PI / 6)}};
    for (std::size_t i = 0; i < 2; ++i)
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_NEAR((*turned)[i]->getCenter(axis), expected[i][axis], 1e-9);
    EXPECT_EQ(ReflectionTransformation::rotate2DReflectionsInImagePlane(nullptr, 1), nullptr);
}

TEST(ReflexMerger2dTest, JoinsSpotsOfSuccessivePatterns) {
    const ReflexVectorPtr spots = listOf({{0, 10, 0, 1},      // three in a row
                                          {0, -20, 5, 7},     // alone
                                          {1, 10.4, 0.2, 3},  // nearer to the first one than
                                          {1, 11.2, 0, 5},    // this one, which starts its own
                                          {2, 10.8, 0, 1},
                                          {4, 10.8, 0, 1}});  // after a gap
    const ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(spots.get()));
    ASSERT_EQ(merged->size(), 4u);
    // The spot of pattern 2 lies 0.4 pixel from both of pattern 1; the first in the list takes it.
    EXPECT_DOUBLE_EQ(at(merged, 0).getIntensity() + at(merged, 2).getIntensity(), 10.0);
    EXPECT_DOUBLE_EQ(at(merged, 1).getIntensity(), 7.0);
    EXPECT_DOUBLE_EQ(at(merged, 3).getTilt(), 8.0);
    EXPECT_EQ(ReflexMerger2d::mergeReflexes(nullptr), nullptr);
}

TEST(ReflexMerger2dTest, WeighsPlaceAndTiltByIntensity) {
    const ReflexVectorPtr spots = listOf({{3, 10, 4, 1}, {4, 11, 4, 3}});
    const ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(spots.get()));
    ASSERT_EQ(merged->size(), 1u);
    EXPECT_DOUBLE_EQ(at(merged, 0).getU(), 10.75);
    EXPECT_DOUBLE_EQ(at(merged, 0).getTilt(), 7.5);
    EXPECT_NEAR((*merged)[0]->getCenter(2), 10.75 * std::sin(7.5 * M_PI / 180), 1e-12);
}

TEST(ReflexMerger2dTest, MergesTheSameSpotsWhateverTheAngle) {
    std::vector<Spot> spots;
    for (int i = 0; i < 300; ++i)
        spots.push_back({i / 30, 40 * std::sin(i * 0.7), 40 * std::cos(i * 1.3), 1.0 + i % 7});
    const ReflexVectorPtr list = listOf(spots);
    const std::size_t merged = ReflexVectorPtr(ReflexMerger2d::mergeReflexes(list.get()))->size();
    EXPECT_LT(merged, list->size());
    for (const double angle : {-90.0, 12.3, 45.0}) {
        const ReflexVectorPtr turned(
            ReflectionTransformation::rotate2DReflectionsInImagePlane(list.get(), angle));
        EXPECT_EQ(ReflexVectorPtr(ReflexMerger2d::mergeReflexes(turned.get()))->size(), merged) << angle;
    }
}
