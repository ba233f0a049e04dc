// What is odd about a series, and what is none.
#include "pipeline/frames/SeriesCheck.h"

#include <deque>

#include "pipeline/base/Attempt.h"
#include "pipeline/base/Callbacks.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FileReport.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/frames/TiltSeries.h"
#include "support/FailureOf.h"
#include "support/MRCBytes.h"

namespace {

using Value = std::function<int(unsigned, int)>;  ///< of a frame's pixel

/// The first pixels of the first frame are at the limit.
Value saturated(int pixels) {
    return [=](unsigned frame, int i) { return frame == 0 && i < pixels ? 32767 : i; };
}

/// Five square patterns without anything odd.
MRCBytes plainSeries() {
    MRCBytes file(8, 8, 5);
    file.putTilts(-2, 1);
    MRCBytes::put(file.header, 12, std::int32_t{1});
    return file;
}

TEST(SeriesCheck, WarnsOfOddSeriesAndRefusesWhatIsNone) {
    const Value usual = saturated(0), zeros = [](auto...) { return 0; }, flat = [](auto...) { return 7; };
    const Value blank = [](unsigned frame, int i) { return frame < 2 ? 0 : i; };
    using Case = std::tuple<std::vector<double>, Value, std::vector<float>, const char*>;
    for (const auto& [tilts, value, kept, text] : {
             Case{{-2, 0, 1.2}, usual, {-2, 0, 1.2F}, ""},
             {{-90, 0, 90}, usual, {-90, 0, 90}, ""},
             {{6, 4, 2, 0}, usual, {0, 2, 4, 6}, "the tilt angles descend"},
             {{6, 2, 4, 0}, usual, {0, 2, 4, 6}, "the tilt angles are not in order"},
             {{0, 2, 2, 2, 4}, usual, {0, 2, 4}, "2 frames repeat the tilt angle"},
             {{0, 2, 4, 6, 8}, blank, {4, 6, 8}, "2 frames hold nothing but zeros"},
             {{0, 1, 2, 3, 4, 5, 30}, usual, {0, 1, 2, 3, 4, 5, 30}, ""},
             {{0, 1, 2, 3, 4, 5, 31}, usual, {0, 1, 2, 3, 4, 5, 31}, "there is a gap of 26"},
             {{0, 2, 4}, saturated(2), {0, 2, 4}, ""},
             {{0, 2, 4}, saturated(3), {0, 2, 4}, "1 frames have more than 1 %"},
             {{0, NAN, 4}, usual, {}, "the tilt angle of slice 1 is not a number"},
             {{0, 2, 90.5}, usual, {}, "the tilt angle of slice 2 is 90.5"},
             {{0, 5}, usual, {}, "the series has 2 frames that can be used; a volume needs three"},
             {{5, 5, 5}, usual, {}, "1 frame that can be used or one tilt angle for all frames;"},
             {{0, 0.1, 0.3}, usual, {}, "cover 0.3 degrees; that is no volume. Check the angles"},
             {{-1, 0, 2.1}, usual, {}, "they may be radians, which would be 177.6"},
             {{0, 2, 4}, zeros, {}, "every frame of the series holds nothing but zeros"},
             {{0, 2, 4}, flat, {}, "the same value in all its pixels"},
         }) {
        SCOPED_TRACE(text);
        std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(20, 10, static_cast<unsigned>(tilts.size())));
        series->m_Header = vrk::tiltSeriesHeader(20, 10, tilts, 5e7, "made");
        for (unsigned z = 0; z < tilts.size(); ++z)
            for (int i = 0; i < 200; ++i)
                series->GetChunkPointer(z)[i] = static_cast<short>(value(z, i));
        vrk::Session session(vrk::silence());
        const Refusal refusal = failureOf([&] { series = vrk::checkedSeries(std::move(series), session); });
        if (kept.empty()) {
            EXPECT_TRUE(refusal.says(text)) << refusal.text;
            continue;
        }
        ASSERT_EQ(refusal.text, "");
        ASSERT_EQ(session.warnings().size(), *text ? 1U : 0U);
        EXPECT_TRUE(says(*text ? session.warnings()[0] : "", text));
        ASSERT_EQ(series->GetDepth(), kept.size());
        for (unsigned z = 0; z < kept.size(); ++z)
            EXPECT_EQ(series->m_Header.tilt(static_cast<int>(z)), kept[z]);
    }
}

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
    vrk::Session session(vrk::silence());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.warning);
        const std::string bytes = c.file.bytes() + c.behind;
        const auto data = vrk::readMRC(folder.write("a.mrc", bytes), session);
        const std::vector<std::string> warnings = vrk::inspect(*data, bytes.size()).warnings;
        ASSERT_EQ(warnings.size(), *c.warning ? 1U : 0U) << testing::PrintToString(warnings);
        if (*c.warning) {
            EXPECT_TRUE(warnings[0].starts_with(c.warning)) << warnings[0];
        }
        vrk::writeData(*data, folder / "b.mrc", session);
        EXPECT_EQ(vrk::readMRC(folder / "b.mrc", session)->GetChunkPointer(2)[9],
                  data->GetChunkPointer(2)[9]);
    }
    vrk::Callbacks changes;
    changes.progress = [&](const auto&) { std::ofstream(folder / "a.mrc", std::ios::app) << 'x'; };
    vrk::Session changing(changes);
    EXPECT_TRUE(failureOf([&] { vrk::readMRC(folder / "a.mrc", changing); }).says("changed while"));
}

TEST(TiltSeries, TakesFramesFromMemory) {
    const std::vector<double> tilts = {10, -10};
    std::vector<float> pixels(2 * 3 * 5);
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<float>(i);
    pixels[4] = std::numeric_limits<float>::infinity();
    std::vector<std::string> warnings;
    vrk::Callbacks observer;
    observer.warning = [&](const std::string& text) { warnings.push_back(text); };
    const auto series =
        vrk::TiltSeries::of(std::span<const float>(pixels), 5, 3, tilts, {5e7, 300, 31.5}, observer).value();
    const vrk::SeriesStatement& stated = series.statement();
    EXPECT_EQ(std::tuple(series.columns(), series.rows(), series.tilts()), std::tuple(5, 3, tilts));
    EXPECT_EQ(std::tuple(stated.pixelSize, stated.kiloVolts, stated.axis), std::tuple(5e7, 300.0, 31.5));
    EXPECT_EQ(series.frame(1)[7], 22) << "column 2 of row 1";
    EXPECT_EQ(series.frame(0)[4], 0);
    EXPECT_EQ(warnings, std::vector<std::string>{"1 pixels that are no numbers were set to 0"});

    std::transform(pixels.begin(), pixels.end(), pixels.begin(), [](float p) { return p * 1e-3F; });
    const auto faint = vrk::TiltSeries::of(std::span<const float>(pixels), 5, 3, tilts, {}, observer).value();
    EXPECT_GT(faint.frame(1)[7], 100) << "fractions are kept";
    EXPECT_TRUE(says(warnings.back(), "multiplied"));
}

TEST(TiltSeries, AddsUpNeighboursWhereThereAreTooManyFrames) {
    std::vector<float> counts(601);
    std::iota(counts.begin(), counts.end(), 0.0F);
    std::vector<double> tilts;
    for (const float i : counts)
        tilts.push_back(30.0 - 0.1 * i);
    counts[599] = NAN;
    std::string warning;
    vrk::Callbacks observer;
    observer.warning = [&](const std::string& text) { warning += text; };
    const auto series =
        vrk::TiltSeries::of(std::span<const float>(counts), 1, 1, tilts, {}, observer).value();
    ASSERT_EQ(series.frames(), 201);
    EXPECT_TRUE(says(warning, {"every 3 neighbours", "1 pixels that are no numbers"}));
    EXPECT_EQ(series.frame(0)[0], 600 + 598);
    EXPECT_NEAR(series.tilts()[0], -29.9, 1e-5);
    EXPECT_EQ(series.frame(200)[0], 0) << "what is left over";
    EXPECT_NEAR(series.tilts()[200], 30.0, 1e-5);
}

TEST(TiltSeries, RefusesWhatIsNoSeries) {
    const double none = std::numeric_limits<double>::quiet_NaN();
    using Case = std::tuple<int, int, std::vector<double>, vrk::SeriesStatement, std::size_t, const char*>;
    for (const auto& [columns, rows, tilts, statement, count, reason] : std::vector<Case>{
             {0, 3, {1}, {}, 0, "0 x 3"},
             {2, -1, {1}, {}, 0, "2 x -1"},
             {2, 3, {}, {}, 0, "no frames"},
             {2, 3, {1, none}, {}, 12, "tilt of frame 1"},
             {2, 3, {1, 2}, {}, 11, "11 pixels are not 2 frames of 2 x 3"},
             {2, 3, {1}, {-1, 0, {}}, 6, "pixel size"},
             {2, 3, {1}, {none, 0, {}}, 6, "pixel size"},
             {2, 3, {1}, {0, 3000.5, {}}, 6, "kV"},
         }) {
        const std::vector<short> pixels(count, 1);
        const auto series =
            vrk::TiltSeries::of(std::span<const short>(pixels), columns, rows, tilts, statement);
        ASSERT_FALSE(series) << reason;
        EXPECT_TRUE(says(series.error().text, reason));
    }
}

}  // namespace
