#include <deque>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "pipeline/frames/FileReport.h"
#include "support/MRCBytes.h"
#include "support/PicturePanel.h"
#include "support/SoFar.h"

namespace {

/// Five square patterns without anything odd.
MRCBytes plainSeries() {
    MRCBytes file(8, 8, 5);
    file.putTilts(-2, 1);
    MRCBytes::put(file.header, 12, std::int32_t{1});
    return file;
}

using InfoCommand = VrkTest;

}  // namespace

TEST(FileReport, NamesEveryOddityAndNothingElse) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* warning;  ///< what the one warning begins with; empty: none
        MRCBytes file = plainSeries();
        std::string behind = {};
    };
    std::deque<Case> cases;
    const auto next = [&](const char* warning) -> MRCBytes& {
        cases.push_back({.warning = warning});
        return cases.back().file;
    };
    next("");
    next("tilts: not monotonic").putSliceValue(1, 1, 5);
    next("tilts: descending").putTilts(2, -1);
    next("tilts: all slices have the same, 7 degrees").putTilts(7, 0);
    next("tilts: the steps are not regular, 1 to 4").putSliceValue(4, 1, 5);
    next("tilts: some slices have the tilt of the slice before").putSliceValue(4, 1, 1);
    next("").putSliceValue(4, 1, 2.09F);
    next("tilts: the steps are not regular, 1 to 1.12").putSliceValue(4, 1, 2.12F);
    next("").putTilts(-89.9F, 10);
    next("tilts: 90 degrees and beyond (-90 to -50)").putTilts(-90, 10);
    next("pixel size: missing").putTilts(-2, 1, 0);
    next("pixel size: differs between the slices (1e+08 to 3e+08").putSliceValue(3, 12, 3e8F);
    next("pixel size: 0.5 1/m").putTilts(-2, 1, 0.5F);
    next("pixel size: 90000 1/m").putTilts(-2, 1, 9e4F);
    next("").putTilts(-2, 1, 1e5F);
    next("").putTilts(-2, 1, 1e10F);
    next("pixel size: 1.1e+10 1/m").putTilts(-2, 1, 1.1e10F);
    next("values: 2 voxels in 1 slices are clipped").data[3] = 32767;
    cases.back().file.data[4] = 32767;
    next("values: 1 are negative").data[3] = -1;
    std::fill_n(next("values: 1 slices are blank").data.begin(), 64, std::int16_t{7});
    MRCBytes::put(next("values: 0 to 319, while the header states 0 to 100").header, 80, 100.0F);
    MRCBytes::put(next("nsymbt: 7 bytes of symmetry").header, 90, std::int16_t{7});
    next("extended header: 1 values are not finite, the first in slice 3").putSliceValue(3, 6, nan);
    MRCBytes::put(next("mode: the header says 2").header, 12, std::int32_t{2});
    MRCBytes& odd = next("extended header: 724 bytes are no whole number of 144-byte");
    odd.next = 724;
    odd.extended.resize(724);
    next("byte count: 3 bytes follow");
    cases.back().behind = "abc";
    next("byte count: the file is 4 bytes short of the").data.resize(318);
    MRCBytes& wide = next("frames: not square (16 x 4)");
    wide.nx = 16;
    wide.ny = 4;

    const TemporaryFolder folder;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.warning);
        const std::string bytes = c.file.bytes() + c.behind;
        const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().readMRCFile(folder.write("a.mrc", bytes)));
        ASSERT_TRUE(data);
        const std::vector<std::string> warnings = vrk::inspect(*data, bytes.size()).warnings;
        ASSERT_EQ(warnings.size(), *c.warning ? 1U : 0U) << testing::PrintToString(warnings);
        if (*c.warning) {
            EXPECT_TRUE(warnings[0].starts_with(c.warning)) << warnings[0];
        }
    }
}

/// No two numbers of the file are the same.
TEST_F(InfoCommand, TellsEveryNumberWhereItBelongs) {
    MRCBytes file(16, 8, 3);
    for (std::size_t i = 0; i < 9; ++i) {
        MRCBytes::put(file.header, i < 6 ? 16 + 4 * i : 40 + 4 * i, static_cast<std::int32_t>(11 + i));
        MRCBytes::put(file.header, i < 6 ? 40 + 4 * i : 52 + 4 * i, 20.5F + static_cast<float>(i));
    }
    MRCBytes::put(file.header, 12, std::int32_t{1});
    MRCBytes::put(file.header, 88, std::int16_t{5});
    for (std::size_t i = 0; i < 3; ++i)
        MRCBytes::put(file.header, 196 + 4 * i, 31.5F + static_cast<float>(i));
    MRCBytes::put(file.header, 216, 41.5F);
    file.header.replace(224, 80, "the first " + std::string(70, ' '));
    for (int k = 2; k <= 17; ++k)
        file.putSliceValue(1, k, static_cast<float>(100 + k));
    for (const auto& [slice, tilt] : {std::pair{0, -4.0F}, {1, 1.0F}, {2, 2.0F}})
        file.putSliceValue(slice, 1, tilt);
    file.putSliceValue(0, 9, 30);
    file.putSliceValue(0, 16, 200);
    for (std::size_t i = 0; i < file.data.size(); ++i)
        file.data[i] = static_cast<std::int16_t>(i == 0 ? -5 : i == 383 ? 32767 : i * i / 5);
    folder.write("a.mrc", file.bytes());
    const Json info = jsonOf("info a.mrc --slices");
    EXPECT_EQ(info["header"], Json::parse(R"({"nx": 16, "ny": 8, "nz": 3, "mode": 1,
        "start": [11, 12, 13], "intervals": [14, 15, 16], "cell_lengths": [20.5, 21.5, 22.5],
        "cell_angles": [23.5, 24.5, 25.5], "axes": [17, 18, 19], "ispg": 5, "nsymbt": 0, "next": 432,
        "density": {"min": 26.5, "max": 27.5, "mean": 28.5, "rms": 41.5}, "origin": [31.5, 32.5, 33.5],
        "labels": ["the first"]})"));
    EXPECT_EQ(info["tilt"], Json::parse(R"({"first": -4, "last": 2, "step": 5, "smallest_step": 1,
        "largest_step": 5, "regular": false, "axis": 30, "high_tension_kv": 200})"));
    EXPECT_EQ(info["slices"][1], Json::parse(R"({"slice": 1, "min": 3276, "max": 13005,
        "mean": 7607.1015625, "clipped": 0, "a_tilt": 1, "b_tilt": 102, "x_stage": 103, "y_stage": 104,
        "z_stage": 105, "defocus": 106, "exp_time": 107, "mean_int": 108, "tilt_axis": 109,
        "magnification": 110, "microscope_type": 111, "pixel_size": 112, "gun_type": 113, "lens_type": 114,
        "d_number": 115, "high_tension": 116, "diffraction_lens": 117})"));
    EXPECT_EQ(info["bytes"], 2224);
    EXPECT_EQ(info["values"]["clipped"], 1);
    EXPECT_EQ(info["values"]["negative"], 1);
    SoFar soFar;
    soFar.addText(vrk("info a.mrc --slices").out);
    EXPECT_NEAR(soFar.sum(), 2800.7948, 1e-3);
}

TEST_F(InfoCommand, ShowsVolumesWithMoreLayersThanASeriesMayHave) {
    MRCBytes file(4, 4, 444, 0);
    MRCBytes::put(file.header, 12, std::int32_t{1});
    MRCBytes::put(file.header, 40, 4e8F);
    std::fill(file.data.begin(), file.data.end(), std::int16_t{0});
    file.header.replace(224, 4, "\xff\x1b[2");  // nothing of a label reaches the terminal unchecked
    folder.write("v.mrc", file.bytes());
    const Json info = jsonOf("info v.mrc --slices");
    EXPECT_EQ(info["type"], "volume");
    EXPECT_EQ(info["slices"].size(), 444U);
    EXPECT_EQ(info["header"]["labels"][0], "??[2");
    EXPECT_EQ(info["warnings"], Json({"values: all are 0"}));
    EXPECT_EQ(vrk("info v.mrc").exitCode, 0);
    folder.write("s.mrc", plainSeries().bytes());
    EXPECT_TRUE(says(vrk("info s.mrc").out, {"tilt axis     not stated\n", "high tension  not stated\n"}));
}

TEST_F(InfoCommand, DrawsTheAxisOnAPattern) {
    MRCBytes file(200, 200, 5);
    file.putTilts(-2, 1);
    std::fill(file.data.begin(), file.data.end(), std::int16_t{0});
    folder.write("a.mrc", file.bytes());
    const auto coloured = [&](double x, double y) {
        const cv::Mat picture = panelOf(folder / "p.png");
        const double zoom = picture.cols / 200.0;
        return isDrawn(picture, (x + 0.5) * zoom - 0.5, (y + 0.5) * zoom - 0.5, kLineColour);
    };
    jsonOf("info a.mrc --picture p.png --axis 30");
    // Along (-1/2, sqrt(3)/2) from the middle, the arrow's head at the end; not along its mirror image.
    EXPECT_TRUE(coloured(99.5 - 30, 99.5 + 52));
    EXPECT_TRUE(coloured(99.5 + 30, 99.5 - 52));
    EXPECT_FALSE(coloured(99.5 + 30, 99.5 + 52));
    jsonOf("info a.mrc --picture p.png");
    EXPECT_FALSE(coloured(99.5 - 30, 99.5 + 52));
}
