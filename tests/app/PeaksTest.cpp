#include "app/RunVrk.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/ReflexVector.h"
#include "support/MRCBytes.h"

namespace {

/// Works in a folder of its own that holds a volume with three spots of 2 x 2 x 2 voxels, and weak ones of 3
/// to 10 voxels in a row.
class PeaksCommand : public VrkTest {
protected:
    PeaksCommand() {
        MRCBytes volume(32, 32, 16, 0);
        MRCBytes::put(volume.header, 12, std::int32_t{1});
        std::ranges::fill(volume.data, std::int16_t{3});
        const auto voxel = [&](unsigned z, unsigned place) { return volume.data.begin() + z * 1024 + place; };
        for (const unsigned x : {4U, 16U, 28U})
            for (unsigned i = 0; i < 8; ++i)
                *voxel(8 + (i >> 2), (x + (i >> 1 & 1)) * 32 + 16 + (i & 1)) = 50;
        for (unsigned j = 0; j < 8; ++j)
            std::fill_n(voxel(3, (2 * j + 3) * 32 + 2), 3 + j, static_cast<std::int16_t>(20 + j));
        folder.write("volume.mrc", volume.bytes());
        MRCBytes series(32, 32, 16);
        series.putTilts(-20, 1);
        folder.write("series.mrc", series.bytes());
    }
};

TEST_F(PeaksCommand, WritesThePeakFileAndTheDistribution) {
    const Json json = jsonOf("peaks volume.mrc -o peaks.txt --threshold 40 --zero-beam 6");
    EXPECT_EQ(json["reflections"], 2);
    EXPECT_EQ(json["foreground_voxels"], 24);
    EXPECT_EQ(json["parameters"]["zero_beam"], 6);
    EXPECT_TRUE(json["parameters"]["resolution"].is_null());

    ReflexVectorPtr list(new ReflexVector);
    ASSERT_TRUE(PeakFileImportExport::loadPeakFile(folder / "peaks.txt", list.get()));
    ASSERT_EQ(list->size(), 2U);
    EXPECT_EQ(list->at(0)->getCenterInX(), 4.5);
    EXPECT_EQ(list->at(1)->getCenterInX(), 28.5);
    EXPECT_EQ(list->at(1)->getCenterInZ(), 8.5);

    const Json all = jsonOf("peaks volume.mrc -o peaks.txt --threshold 15 --zero-beam 0");
    EXPECT_EQ(all["voxels"], Json::parse(R"({"min": 3, "p10": 4, "median": 8, "p90": 9, "max": 10})"));
    EXPECT_EQ(all["intensity"],
              Json::parse(R"({"min": 60, "p10": 84, "median": 200, "p90": 400, "max": 400})"));
    EXPECT_EQ(all["dims"], (std::vector<int>{32, 32, 16}));
}

TEST_F(PeaksCommand, RefusesWhatItCannotUse) {
    expectRefused({{"volume.mrc --zero-beam 0 --threshold 60", 3, "from 3 to 50"},
                   {"volume.mrc --zero-beam 0 --threshold 60", 3, "try --threshold 25, which finds 6"},
                   {"series.mrc", 1, "holds a tilt series (16 patterns from -20 to -5 degrees)"},
                   {"volume.mrc --threshold nan", 2, "--threshold"},
                   {"volume.mrc --centre 4", 2, "--centre"},
                   {"volume.mrc --min-voxels 9 --max-voxels 8", 2, "--max-voxels"}},
                  folder / ".", "peaks -o peaks.txt ");
    using Entries = std::filesystem::directory_iterator;
    EXPECT_EQ(std::distance(Entries(folder / ""), Entries()), 2);
}

}  // namespace
