#include "reflections/ReflexOnGrid.h"

#include "PlainSearch.h"
#include "TestVolume.h"
#include "reflections/VolumeMath.h"

namespace {

/// Builds its region through the interface for derived classes.
class VoxelByVoxel : public ReflexOnGrid {
public:
    VoxelByVoxel(int x, int y, int z, const VoxMRCData* volume)
        : ReflexOnGrid(x, y, z, volume, false, nullptr) {}

    using ReflexOnGrid::add;
    using ReflexOnGrid::getBeginPoint;
    using ReflexOnGrid::getEndPoint;
};

TEST(VolumeMath, NumbersVoxelsWithYFastest) {
    const auto volume = makeVolume({4, 3, 2});
    EXPECT_EQ(VolumeMath::getIndex(volume.get(), 2, 3, 1), 23);
    EXPECT_EQ(VolumeMath::getIndex(volume.get(), 3, 0, 0), -1);
    for (int index = 0; index < 24; ++index) {
        int x = -1, y = -1, z = -1;
        VolumeMath::getCoordinates(volume.get(), index, x, y, z);
        EXPECT_EQ(VolumeMath::getIndex(volume.get(), x, y, z), index);
    }
}

TEST(ReflexOnGrid, GrowsAloneAndMarksAllButTheStart) {
    for (unsigned seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto volume = randomVolume(random, 3);
        const double threshold = seed % 3 - 1.5;
        VolumeMath::setZeroCompareValue(threshold);
        const PlainVolume plain(*volume, threshold);
        const int count = plain.d(0) * plain.d(1) * plain.d(2);
        const int start = static_cast<int>(random() % static_cast<unsigned>(count));
        if (plain.background(start)) continue;
        const auto [x, y, z] = plain.voxel(start);
        const PlainReflection expected = PlainReflection::grow(plain, {x, y, z});

        // Flags from elsewhere are neither read nor cleared.
        const int other = count / 2;
        const auto flags = std::make_unique<bool[]>(static_cast<std::size_t>(count));
        flags[static_cast<std::size_t>(other)] = true;
        ReflexOnGrid region(x, y, z, volume.get(), true, flags.get());
        expectSame(region, expected);
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(flags[static_cast<std::size_t>(i)], (region.isInside(i) && i != start) || i == other);
    }
}

TEST(ReflexOnGrid, StartsThatGrowNothing) {
    const auto volume = makeVolume({3, 3, 3});
    VolumeMath::setZeroCompareValue(1.0);
    RecordingLogObserver log;
    ReflexOnGrid background(1, 2, 1, volume.get(), true, nullptr);
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(background.getNumberOfVoxels(), 0);
    EXPECT_EQ(background.getCenterOfGravity(1), 2.0);
    EXPECT_EQ(background.getCenter(1), 0.0);
    EXPECT_EQ(background.getMinValue(), std::numeric_limits<float>::infinity());

    ReflexOnGrid outside(1, 3, 1, volume.get(), true, nullptr);
    EXPECT_TRUE(log.has("Startvoxel not correct.", VRK::Error));
    for (int axis = 0; axis < 3; ++axis)
        EXPECT_EQ(outside.getCenterOfGravity(axis), 0.0);
    EXPECT_EQ(outside.getIntensity(), 0.0);
    double x = 0, y = 0, z = 0;
    outside.getCenter(x, y, z);
    EXPECT_TRUE(std::isnan(x));
}

TEST(ReflexOnGrid, CoordinateArrayMarksButDoesNotGrow) {
    const auto volume = makeVolume({3, 3, 3}, std::vector<short>(27, 4));
    VolumeMath::setZeroCompareValue(1.0);
    bool flags[27] = {};
    const int start[3] = {1, 1, 1};
    ReflexOnGrid region(start, volume.get(), true, flags);
    EXPECT_TRUE(region.getPoints()->empty());
    EXPECT_EQ(std::count(flags, flags + 27, true), 26);
}

TEST(ReflexOnGrid, DerivedClassAddsVoxelByVoxel) {
    const auto volume = makeVolume({3, 3, 3});
    setVoxel(*volume, 0, 0, 0, 2);
    setVoxel(*volume, 2, 2, 2, 6);
    VolumeMath::setZeroCompareValue(1.0);
    VoxelByVoxel region(0, 0, 0, volume.get());
    int index = 0;
    bool flags[27] = {};
    EXPECT_TRUE(region.add(2, 2, 2, &index, true, flags));
    EXPECT_EQ(index, 26);
    EXPECT_TRUE(flags[26]);
    EXPECT_FALSE(region.add(2, 2, 2, &index, true, flags));
    EXPECT_FALSE(region.add(1, 1, 1, &index, true, flags));
    EXPECT_FALSE(region.add(1, 3, 1, &index, true, flags));
    EXPECT_EQ(index, -1);
    region.integrate();
    EXPECT_EQ(region.getIntensity(), 8.0);
    EXPECT_EQ(region.getWidth(), 3.0);
    for (int axis = 0; axis < 3; ++axis)
        EXPECT_EQ(std::pair(region.getCenterOfGravity(axis), region.getCenter(axis, 3)), std::pair(2.0, 1.5));
    EXPECT_EQ(region.getWeightedCenterInY(), 1.5);
    EXPECT_EQ(std::distance(region.getBeginPoint(), region.getEndPoint()), 2);
    VoxelByVoxel grown(1, 1, 1, volume.get());  // from nothing
    grown.add(2, 2, 2, &index, false, nullptr);
    EXPECT_EQ((std::array{grown.getWidth(), grown.getHeight(), grown.getDepth()}),
              (std::array{2.0, 2.0, 2.0}));
}

}  // namespace
