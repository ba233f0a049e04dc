#include "app/RunVrk.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/UnitCell.h"
#include "support/MRCBytes.h"
#include "support/PicturePanel.h"

namespace {

constexpr unsigned kEdge = 49;

/// A volume in which one node, 2 1 0, is bright, and the file of its cell: a* of 8 voxels along x, b* of 10
/// along y, c* of 12 along z.
class SectionsCommand : public VrkTest {
protected:
    SectionsCommand() {
        MRCBytes volume(kEdge, kEdge, kEdge, 0);
        MRCBytes::put(volume.header, 12, std::int32_t{1});
        MRCBytes::put(volume.header, 40, static_cast<float>(kEdge) * 2e8F);
        std::ranges::fill(volume.data, std::int16_t{0});
        constexpr std::size_t middle = kEdge / 2;
        for (const std::size_t x : {16U, 17U})
            for (const std::size_t y : {10U, 11U})
                volume.data[(middle * kEdge + middle + x) * kEdge + middle + y] = 9000;
        folder.write("volume.mrc", volume.bytes());
        MRCBytes series(kEdge, kEdge, 5);
        series.putTilts(-20, 1);
        folder.write("series.mrc", series.bytes());

        const double a[3] = {8, 0, 0}, b[3] = {0, 10, 0}, c[3] = {0, 0, 12};
        UnitCell cell(a, b, c, 1e8, false, true, LATTICE::aP);
        CellFileImportExport::writeCellFile_version_2(folder / "cell.txt", &cell);
    }

    VrkResult sections(std::vector<std::string> more) const {
        more.insert(more.begin(), {"sections", "volume.mrc", "cell.txt", "-o", "the pictures"});
        return runVrk(more, folder / ".");
    }
};

/// Rings of resolution, bar and arrows are as long as they say.
TEST_F(SectionsCommand, LengthsCanBeReadOffThePictures) {
    for (const int size : {294, 588}) {
        const VrkResult run = sections({"--size", std::to_string(size)});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(std::ranges::count(run.out, '\n'), 6);
        for (const char* name : {"hk0", "h0l", "0kl", "projection_x", "projection_y", "projection_z"}) {
            const std::string file = "the pictures/" + std::string(name) + ".png";
            EXPECT_TRUE(says(run.out, file + '\n'));
            EXPECT_EQ(panelOf(folder / file).size(), cv::Size(size, size)) << name;
        }
        const cv::Mat picture = panelOf(folder / "the pictures/hk0.png");
        const double middle = 0.5 * (size - 1), perVoxel = size / double{kEdge};
        EXPECT_TRUE(isDrawn(picture, middle + 7 * perVoxel, middle, kLineColour));
        EXPECT_FALSE(isDrawn(picture, middle + 15 * perVoxel, middle, kLineColour));
        EXPECT_NEAR(soFarOf(folder / "the pictures"), size == 294 ? 78319.3980 : 135238.6927, 1e-3);
    }
}

/// Also in small pictures, for which the volume is read reduced.
TEST_F(SectionsCommand, PutsNodesWhereTheirIndicesSay) {
    constexpr std::size_t kHeader = 18;
    for (const auto& [size, reduction, projection] : {std::tuple(200U, 1, kEdge), {24U, 2, 25U}}) {
        SCOPED_TRACE(size);
        const VrkResult run = sections({"--primitive", "--plane", "hk0", "--plane", "hk1", "--size",
                                        std::to_string(size), "--tga", "--json"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_FALSE(exists("the pictures/h0l.png"));
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json["reduction"], reduction);
        EXPECT_EQ(json["files"].size(), 10U);
        for (const std::string file : json["files"])
            EXPECT_TRUE(exists(file)) << file;
        const std::string hk0 = folder.read("the pictures/hk0.tga");
        const std::string hk1 = folder.read("the pictures/hk1.tga");
        ASSERT_EQ(hk0.size(), kHeader + size * size);
        ASSERT_EQ(hk1.size(), hk0.size());
        EXPECT_EQ(folder.read("the pictures/projection_x.tga").size(), kHeader + projection * projection);
        const auto grey = [&](const std::string& picture, double right, double up) {
            const double pixelsPerVoxel = size / double{kEdge};
            const auto x = static_cast<std::size_t>(std::lround(0.5 * (size - 1) + pixelsPerVoxel * right));
            const auto y = static_cast<std::size_t>(std::lround(0.5 * (size - 1) - pixelsPerVoxel * up));
            return static_cast<unsigned char>(picture[kHeader + y * size + x]);
        };
        EXPECT_GT(grey(hk0, 16.5, 10.5), 200);
        for (const auto& [right, up] : {std::pair(16.5, -10.5), {-16.5, 10.5}, {10.5, 16.5}})
            EXPECT_LT(grey(hk0, right, up), 100);
        EXPECT_LT(grey(hk1, 16.5, 10.5), 100);
    }
}

TEST_F(SectionsCommand, RefusesWhatItCannotDraw) {
    folder.write("flat.txt", "#VRKCELLVERSION 2\n#\n1 0 0\n2 0 0\n0 0 1\n");
    const std::vector<RefusedLine> cases = {
        {"volume.mrc cell.txt -o out --plane hk0 hkl", 2, "\"hkl\" is no plane"},
        {"series.mrc cell.txt -o out", 1, "holds a tilt series"},
        {"volume.mrc flat.txt -o out", 1, "flat.txt"},
        {"volume.mrc cell.txt -o cell.txt", 1, "cannot make the folder"},
    };
    expectRefused(cases, folder / ".", "sections ");
    EXPECT_FALSE(exists("out"));
}

}  // namespace
