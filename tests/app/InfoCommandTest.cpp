#include "app/RunVrk.h"
#include "support/MRCBytes.h"
#include "support/PicturePanel.h"
#include "support/SoFar.h"

using InfoCommand = VrkTest;

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
    MRCBytes plain(8, 8, 5);
    plain.putTilts(-2, 1);
    folder.write("s.mrc", plain.bytes());
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
