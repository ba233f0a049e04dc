#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "support/MRCBytes.h"
#include "support/PlainVolume.h"
#include "support/Testing.h"

namespace {

using Block = VoxVolumeData::Block;

/// Mean over a block of the file's voxels, rounded, or the largest; y runs fastest in the slices of a volume.
short blockValue(const MRCBytes& file, bool volume, Block block, int n, int depth, int vx, int vy, int vz) {
    double sum = 0;
    int count = 0;
    short highest = -32768;
    for (int z = vz * depth; z < std::min((vz + 1) * depth, file.nz); ++z)
        for (int y = vy * n; y < std::min((vy + 1) * n, file.ny); ++y)
            for (int x = vx * n; x < std::min((vx + 1) * n, file.nx); ++x, ++count) {
                const short value = file.data[static_cast<std::size_t>(
                    z * file.nx * file.ny + (volume ? x * file.ny + y : y * file.nx + x))];
                sum += value;
                highest = std::max(highest, value);
            }
    return block == Block::Mean ? static_cast<short>(std::lround(sum / count)) : highest;
}

bool sameVoxels(const VoxVolumeData& a, const VoxVolumeData& b) {
    return std::equal(a.voxels().begin(), a.voxels().end(), b.voxels().begin(), b.voxels().end());
}

}  // namespace

TEST(VolumeView, HoldsTheBlocksOfTheFileInXYZOrder) {
    const TemporaryFolder folder;
    VoxMRCFileHandler handler;
    for (const bool volume : {false, true}) {
        MRCBytes file(71, 45, 6, volume ? 0 : 144);
        if (!volume) file.putTilts(-5, 2);
        for (std::size_t i = 0; i < file.data.size(); ++i)
            file.data[i] = static_cast<std::int16_t>(i * 7919 % 65536 - 32768);
        const std::string path = folder.write("a.mrc", file.bytes());
        const std::unique_ptr<VoxMRCData> data(handler.readMRCFile(path));
        for (const int n : {0, 1, 2, 4, 8, 100})
            for (const Block block : {Block::Mean, Block::Maximum}) {
                SCOPED_TRACE(n);
                const int edge = std::max(n, 1);
                const int depth = volume ? edge : 1;
                const std::unique_ptr<VoxVolumeData> view(handler.readMRCFile_asVolumeData(path, n, block));
                ASSERT_TRUE(view);
                ASSERT_EQ(view->width(), static_cast<unsigned>((71 + edge - 1) / edge));
                ASSERT_EQ(view->height(), static_cast<unsigned>((45 + edge - 1) / edge));
                ASSERT_EQ(view->depth(), static_cast<unsigned>((6 + depth - 1) / depth));
                forEachVoxel(view->width(), view->height(), view->depth(),
                             [&](unsigned x, unsigned y, unsigned z) {
                                 ASSERT_EQ(view->value(x, y, z),
                                           blockValue(file, volume, block, edge, depth, static_cast<int>(x),
                                                      static_cast<int>(y), static_cast<int>(z)));
                             });
                EXPECT_EQ(view->header().m_pixelsize, volume ? 0 : 1e8F * static_cast<float>(edge));
                EXPECT_TRUE(sameVoxels(VoxVolumeData::fromData(*data, n, block), *view));
                EXPECT_NEAR(view->middle()[1], 22.5 / edge - 0.5, 1e-12);
                EXPECT_NEAR(view->middle()[2], 3.0 / depth - 0.5, 1e-12);
            }
    }
}

TEST(VolumeView, IsWrittenAsTheDataItShows) {
    const TemporaryFolder folder;
    VoxMRCFileHandler handler;
    for (const bool volume : {false, true}) {
        MRCBytes file(7, 5, 6, volume ? 0 : 144);
        if (!volume) file.putTilts(-5, 2);
        const std::unique_ptr<VoxVolumeData> view(
            handler.readMRCFile_asVolumeData(folder.write("a.mrc", file.bytes()), 1));
        ASSERT_TRUE(view);
        ASSERT_TRUE(handler.writeMRCFile(view.get(), folder / "b.mrc", 1));
        EXPECT_EQ(folder.read("b.mrc"), file.bytes());

        ASSERT_TRUE(handler.writeMRCFile(view.get(), folder / "c.mrc", 2));
        const std::unique_ptr<VoxVolumeData> half(handler.readMRCFile_asVolumeData(folder / "a.mrc", 2));
        const std::unique_ptr<VoxVolumeData> back(handler.readMRCFile_asVolumeData(folder / "c.mrc", 1));
        ASSERT_TRUE(back);
        EXPECT_TRUE(sameVoxels(*half, *back));
        EXPECT_EQ(back->header().m_pixelsize, half->header().m_pixelsize);
    }
    RecordingLogObserver log;
    EXPECT_FALSE(handler.writeMRCFile(static_cast<VoxVolumeData*>(nullptr), folder / "d.mrc", 1));
    EXPECT_TRUE(log.has("no data to write", VRK::Error));
    const std::unique_ptr<VoxVolumeData> crystal(handler.createTestDummyMRCFile_asVolumeData(4));
    EXPECT_EQ(crystal->width(), 32U);
    EXPECT_EQ(crystal->depth(), 61U);
}
