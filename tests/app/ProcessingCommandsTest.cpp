#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "RunVrk.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"
#include "support/TemporaryFolder.h"

namespace {

using Json = nlohmann::json;

/// A folder with a small series, removed at the end.
class ProcessingCommands : public testing::Test {
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
        ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(&data, m_folder / name));
    }
    VrkResult run(const std::vector<std::string>& arguments) const {
        return runVrk(arguments, m_folder / ".");
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(m_folder / name); }

    const TemporaryFolder m_folder;
};

/// What centring brings in from outside has no background that could be taken from it.
TEST_F(ProcessingCommands, LeaveTheBorderEmptyThatCentringBringsIn) {
    ASSERT_EQ(run({"preprocess", "series.mrc", "-o", "clean.mrc", "--centre", "20,30"}).exitCode, 0);
    const std::unique_ptr<VoxMRCData> clean(VoxMRCFileHandler().readMRCFile(m_folder / "clean.mrc"));
    int values = 0;
    for (unsigned i = 0; i < 64; ++i) {
        EXPECT_TRUE(std::all_of(clean->GetChunkPointer(2) + 64 * i, clean->GetChunkPointer(2) + 64 * i + 11,
                                [](short value) { return value == 0; }))
            << i;
        values += clean->GetChunkPointer(2)[64 * i + 12] != 0 ? 1 : 0;
    }
    EXPECT_GT(values, 20);
}

TEST_F(ProcessingCommands, KeepAnUnknownPixelSizeUnknown) {
    const auto series = makeSeries(16, 16, {-40, 0, 40}, 0);
    series->m_Header.xlen = 64;  // what the frame's edge was to whoever wrote the file
    write(*series, "unscaled.mrc");
    const VrkResult volume = run({"reconstruct", "unscaled.mrc", "-o", "volume.mrc"});
    EXPECT_EQ(volume.exitCode, 0) << volume.err;
    EXPECT_EQ(Json::parse(run({"info", "volume.mrc", "--json"}).out)["pixel_size"], 0.0);
}

TEST_F(ProcessingCommands, ExplainThemselvesWhenTheyCannotGoOn) {
    const auto wide = makeSeries(20, 10, {-10, 10});
    write(*wide, "wide.mrc");
    const auto descending = makeSeries(10, 10, {10, -10});
    write(*descending, "descending.mrc");
    m_folder.write("bad.txt", "1e8\n");
    const std::vector<RefusedLine> cases = {
        {"preprocess none.mrc -o out.mrc", 1, "none.mrc"},
        {"preprocess series.mrc -o series.mrc", 2, "another name"},
        {"preprocess series.mrc -o out.mrc --rotate up", 2, "not 'up'"},
        {"preprocess series.mrc -o out.mrc --rotate header", 1, "no tilt axis"},
        {"preprocess series.mrc -o out.mrc --bin 3", 2, "--bin"},
        {"preprocess series.mrc -o no/out.mrc", 1, "does not exist"},
        {"reconstruct wide.mrc -o out.mrc", 1, "20 x 10 pixels"},
        {"reconstruct descending.mrc -o out.mrc", 1, "do not ascend"},
        {"reconstruct series.mrc -o out.mrc --fine-calibration bad.txt", 1, "bad.txt, line 1"},
        {"reconstruct series.mrc -o out.mrc --fine-calibration none", 1, "does not exist"},
        {"reconstruct series.mrc -o out.mrc --fine-pixel-size -1", 2, "--fine-pixel-size"},
    };
    expectRefused(cases, m_folder / ".");
    EXPECT_FALSE(exists("out.mrc"));
    const auto dims = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {"preprocess", "wide.mrc", "-o", "square.mrc", "--json"});
        return Json::parse(run(more).out)["dims"];
    };
    EXPECT_EQ(dims({"--crop"}), Json({10, 10, 2}));
    EXPECT_EQ(dims({}), Json({20, 20, 2}));
    EXPECT_EQ(run({"reconstruct", "square.mrc", "-o", "out.mrc"}).exitCode, 0);
}

}  // namespace
