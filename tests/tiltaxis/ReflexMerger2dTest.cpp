#include "tiltaxis/ReflexMerger2d.h"

#include <rapidcheck.h>

#include "support/Testing.h"
#include "tiltaxis/ReflectionTransformation.h"
#include "tiltaxis/Reflex2d.h"
#include "tiltaxis/detail/EvaluationSeries.h"

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

/// The chains of the spots, by looking at all pairs of two patterns: the number of the chain of each spot.
std::vector<std::size_t> plainChains(const std::vector<Spot>& spots, double limit) {
    std::vector<std::size_t> chainOf(spots.size()), last;  // the last spot of each chain
    std::vector<bool> taken(spots.size());
    for (std::size_t begin = 0, end = 0; begin < spots.size(); begin = end) {
        while (end < spots.size() && spots[end].pattern == spots[begin].pattern)
            ++end;
        std::vector<std::array<double, 3>> pairs;  // distance, spot of the pattern before, spot
        for (std::size_t i = 0; i < begin; ++i)
            for (std::size_t j = begin; j < end; ++j)
                if (spots[i].pattern == spots[j].pattern - 1)
                    pairs.push_back({std::hypot(spots[j].u - spots[i].u, spots[j].v - spots[i].v),
                                     static_cast<double>(i), static_cast<double>(j)});
        std::stable_sort(pairs.begin(), pairs.end(), [](auto& a, auto& b) { return a[0] < b[0]; });
        std::vector<bool> continued(spots.size());
        for (const auto& [distance, from, to] : pairs) {
            const auto i = static_cast<std::size_t>(from), j = static_cast<std::size_t>(to);
            if (distance > limit || continued[i] || taken[j]) continue;
            continued[i] = taken[j] = true;
            chainOf[j] = chainOf[i];
        }
        for (std::size_t j = begin; j < end; ++j)
            if (!taken[j]) chainOf[j] = last.size(), last.push_back(j);
    }
    return chainOf;
}

}  // namespace

TEST(ReflexMerger2dTest, JoinsWhatAPlainSearchJoins) {
    EXPECT_TRUE(rc::check([](std::vector<std::array<unsigned char, 3>> bytes) {
        std::vector<Spot> spots;
        for (const auto& b : bytes)  // few places, so that many distances are equal
            spots.push_back({b[0] % 8, 0.5 * (b[1] % 16), 0.5 * (b[2] % 16), 1.0});
        std::stable_sort(spots.begin(), spots.end(),
                         [](const Spot& a, const Spot& b) { return a.pattern < b.pattern; });
        for (std::size_t i = 0; i < spots.size(); ++i)
            spots[i].intensity = static_cast<double>(i + 1);
        const std::vector<std::size_t> chains = plainChains(spots, 1.5);
        std::vector<double> sums;
        for (std::size_t i = 0; i < spots.size(); ++i) {
            sums.resize(std::max(sums.size(), chains[i] + 1));
            sums[chains[i]] += spots[i].intensity;
        }
        const ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(listOf(spots).get()));
        RC_ASSERT(merged->size() == sums.size());
        for (std::size_t i = 0; i < sums.size(); ++i)
            RC_ASSERT(at(merged, i).getIntensity() == sums[i]);
    }));
    EXPECT_EQ(ReflexMerger2d::mergeReflexes(nullptr), nullptr);
}

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

TEST(ReflexMerger2dTest, WeighsPlaceAndTiltByIntensity) {
    const ReflexVectorPtr spots = listOf({{3, 10, 4, 1}, {4, 11, 4, 3}});
    for (const auto& [spot, height] : {std::pair{0U, 60.0}, {1U, 50.0}}) {
        auto& one = dynamic_cast<Reflex2d&>(*(*spots)[spot]);
        one.setPeakHeight(height);
        one.setThreshold(height / 4);
    }
    const ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(spots.get()));
    ASSERT_EQ(merged->size(), 1u);
    EXPECT_DOUBLE_EQ(at(merged, 0).getU(), 10.75);
    EXPECT_DOUBLE_EQ(at(merged, 0).getTilt(), 7.5);
    EXPECT_EQ(at(merged, 0).getPeakHeight(), 60);
    EXPECT_EQ(at(merged, 0).getThreshold(), 15);
    EXPECT_NEAR((*merged)[0]->getCenter(2), 10.75 * std::sin(7.5 * M_PI / 180), 1e-12);
}

TEST(EvaluationSeriesTest, LevelsAreReachedByHundredsOfSpotsAndNotByNoise) {
    std::vector<int> order(1100);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(4));
    for (const auto& [threshold, expected] : {std::pair(5.0, std::vector{3395.35, 3290.35, 3150.35}),
                                              {5.6, {3395.35, 3290.35, 3279.64}},
                                              {6, {3513.9}}}) {
        ReflexVector spots;
        for (const int n : order) {
            // The last hundred lie in the beam.
            auto spot = std::make_unique<Reflex2d>(0, 0.0, n < 1000 ? 3.0 : 2.0, 4.0);
            spot->setPeakHeight(n < 1000 ? 10000 - n : 20000);
            spot->setThreshold(n < 1000 ? threshold * ((7 * n) % 1000 + 1) : 1e6);
            spots.append(ReflexPtr(spot.release()));
        }
        const std::vector<double> levels = VRK::detail::evaluationLevels(spots, 5.0);
        ASSERT_EQ(levels.size(), expected.size());
        for (std::size_t i = 0; i < levels.size(); ++i)
            EXPECT_NEAR(levels[i], expected[i], 1e-9);
    }
}
