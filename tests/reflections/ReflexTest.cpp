#include "reflections/Reflex.h"

#include "TestVolume.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/ReflexVector.h"
#include "reflections/VolumeMath.h"

namespace {

TEST(Reflex, RefusesIntensitiesThatAreNotPositiveOrZero) {
    Reflex reflex(0, 0, 0);
    EXPECT_FALSE(reflex.setIntensity(-0.5));
    EXPECT_FALSE(reflex.setIntensity(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_EQ(reflex.getIntensity(), reflex.getNumberOfVoxels());
    EXPECT_TRUE(reflex.setIntensity(0.0));
    EXPECT_EQ(reflex.getIntensity(), 0.0);
}

TEST(Reflex, MergeWeighsTheAxesWithARunningIntensity) {
    Reflex own(0, 0, 0), other(2, 6, 8);
    own.merge(&other);
    EXPECT_EQ((std::array{own.getCenterInX(), own.getCenterInY(), own.getCenterInZ(), own.getIntensity()}),
              (std::array{1.0, 2.0, 2.0, 4.0}));
}

TEST(Reflex, BinDividesByTheFactorWithItsSecondBitTurned) {
    for (const auto& [factor, x] : {std::pair(1, 4.0), {3, 12.0}, {4, 2.0}, {0, 12.0}, {-3, 12.0}}) {
        Reflex reflex(12, 24, 36);
        reflex.bin(factor);
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_EQ(reflex.getCenter(axis), (axis + 1) * x) << factor;
    }
}

TEST(Reflex, TurnsAboutZIntoAFreshReflection) {
    Reflex reflex(2, 0, 5);
    reflex.setHKL(1, 2, 3);
    reflex.setIntensity(7);
    const ReflexPtr turned(reflex.rotatez(90));
    EXPECT_NEAR(turned->getCenterInX(), 0.0, 1e-15);
    EXPECT_EQ(turned->getCenterInY(), 2.0);
    EXPECT_EQ(turned->getCenterInZ(), 5.0);
    EXPECT_FALSE(turned->isIndicated());
    EXPECT_EQ(turned->getIntensity(), 1.0);
    EXPECT_DOUBLE_EQ(reflex.getDistance(turned.get()), std::sqrt(8.0));
}

/// A list of regions of 1 to 5 voxels on a row, at distance 10 n from x = 0.
class ReflexVectorFilters : public testing::Test {
protected:
    ReflexVectorFilters() : volume(makeVolume({6, 64, 2})) {
        VolumeMath::setZeroCompareValue(1.0);
        for (unsigned n = 1; n <= 5; ++n) {
            for (unsigned y = 0; y < n; ++y)
                setVoxel(*volume, 10 * n, y, 0, 3);
            all->push_back(new ReflexOnGrid(static_cast<int>(10 * n), 0, 0, volume.get(), false, nullptr));
        }
        list = *all;
    }
    ~ReflexVectorFilters() override { list.clear(); }

    std::vector<int> sizes() const {
        std::vector<int> result;
        for (Reflex* reflex : list)
            result.push_back(reflex->getNumberOfVoxels());
        return result;
    }

    std::unique_ptr<VoxMRCData> volume;
    ReflexVectorPtr all{new ReflexVector};
    ReflexVector list;
};

TEST_F(ReflexVectorFilters, BoundsAreInclusiveAndTheOrderStays) {
    list.removeAllReflexesSmallerThanX(2);
    EXPECT_EQ(sizes(), (std::vector<int>{2, 3, 4, 5}));
    list.romoveAllReflexesGreaterThanX(4);
    EXPECT_EQ(sizes(), (std::vector<int>{2, 3, 4}));
    list.cutOffZeroBeam(10, 0, 0, 20, 1);
    EXPECT_EQ(sizes(), (std::vector<int>{3, 4}));
    list.limitResolution(10, 0, 0, 20, 1);
    EXPECT_EQ(sizes(), (std::vector<int>{3}));
}

TEST_F(ReflexVectorFilters, FindsTheElementThatContainsAVoxel) {
    EXPECT_EQ(list.getReflex(30.9, 2.1, 0), list[2]);
    EXPECT_EQ(list.getReflex(30, 3, 0), nullptr);
    EXPECT_EQ(list.getReflex(1e300, 3, 0), nullptr);
    EXPECT_EQ(ReflexVector().getReflex(0, 0, 0), nullptr);
}

TEST_F(ReflexVectorFilters, SortsByIndices) {
    const int hkl[5][3] = {{1, 0, 0}, {0, 2, 5}, {0, 2, -5}, {-1, 9, 9}, {0, 1, 7}};
    for (std::size_t i = 0; i < 5; ++i)
        list[i]->setHKL(hkl[i][0], hkl[i][1], hkl[i][2]);
    list.sortReflectionsByHKL();
    EXPECT_EQ(sizes(), (std::vector<int>{4, 5, 3, 2, 1}));
}

}  // namespace
