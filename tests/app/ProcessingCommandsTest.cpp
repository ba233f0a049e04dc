#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"

namespace {

/// A folder with a small series, removed at the end.
class ProcessingCommands : public VrkTest {
protected:
    ProcessingCommands() {
        simulated::PatternSettings settings;
        settings.size = 64;
        const auto series = makeSeries(64, 64, {-40, -20, 0, 20, 40});
        for (unsigned i = 0; i < 5; ++i)
            setPixels(*series, i, simulated::pattern(settings, 33, 30, i));
        write(*series, "series.mrc");
    }

    void write(VoxMRCData& data, const std::string& name) const {
        ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(&data, folder / name));
    }
};

/// What centring brings in from outside has no background that could be taken from it.
TEST_F(ProcessingCommands, LeaveTheBorderEmptyThatCentringBringsIn) {
    jsonOf("preprocess series.mrc -o clean.mrc --centre 20,30");
    const std::unique_ptr<VoxMRCData> clean(VoxMRCFileHandler().readMRCFile(folder / "clean.mrc"));
    int values = 0;
    for (unsigned i = 0; i < 64; ++i) {
        const short* row = clean->GetChunkPointer(2) + 64 * i;
        EXPECT_EQ(std::count(row, row + 11, 0), 11) << i;
        values += row[12] != 0;
    }
    EXPECT_GT(values, 20);
}

TEST_F(ProcessingCommands, KeepAnUnknownPixelSizeUnknown) {
    const auto series = makeSeries(16, 16, {-40, 0, 40}, 0);
    series->m_Header.xlen = 64;  // what the frame's edge was to whoever wrote the file
    write(*series, "unscaled.mrc");
    jsonOf("reconstruct unscaled.mrc -o volume.mrc");
    EXPECT_EQ(jsonOf("info volume.mrc")["pixel_size"], 0.0);
}

TEST_F(ProcessingCommands, ExplainThemselvesWhenTheyCannotGoOn) {
    const auto wide = makeSeries(20, 10, {-10, 10});
    write(*wide, "wide.mrc");
    const auto descending = makeSeries(10, 10, {10, -10});
    write(*descending, "descending.mrc");
    folder.write("bad.txt", "1e8\n");
    const std::vector<RefusedLine> cases = {
        {"preprocess series.mrc -o series.mrc", 2,
         "would replace the series series.mrc; give -o another name"},
        {"preprocess series.mrc -o out.mrc --rotate header", 1, "no tilt axis"},
        {"preprocess series.mrc -o out.mrc --bin 3", 2, "--bin"},
        {"reconstruct wide.mrc -o out.mrc", 1, "20 x 10 pixels"},
        {"reconstruct descending.mrc -o out.mrc", 1, "do not ascend"},
        {"reconstruct series.mrc -o out.mrc --fine-calibration bad.txt", 1, "bad.txt, line 1"},
        {"reconstruct series.mrc -o out.mrc --fine-calibration none", 1, "does not exist"},
        {"reconstruct series.mrc -o out.mrc --fine-pixel-size -1", 2, "--fine-pixel-size"},
    };
    expectRefused(cases, folder / ".");
    EXPECT_FALSE(exists("out.mrc"));
    EXPECT_EQ(jsonOf("preprocess wide.mrc -o square.mrc --crop")["dims"], Json({10, 10, 2}));
    EXPECT_EQ(jsonOf("preprocess wide.mrc -o square.mrc")["dims"], Json({20, 20, 2}));
    jsonOf("reconstruct square.mrc -o out.mrc");
}

}  // namespace
