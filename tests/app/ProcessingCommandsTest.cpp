#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "RunVrk.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "processing/SeriesFactory.h"
#include "processing/SimulatedPatterns.h"

namespace {

using Json = nlohmann::json;

/// A folder with a small series, removed at the end.
class ProcessingCommands : public testing::Test {
protected:
    ProcessingCommands() {
        std::filesystem::create_directories(m_folder);
        simulated::PatternSettings settings;
        settings.size = 64;
        const auto series = makeSeries(64, 64, {-40, -20, 0, 20, 40});
        for (unsigned i = 0; i < 5; ++i)
            setPixels(*series, i, simulated::pattern(settings, 33, 30, i));
        write(*series, "series.mrc");
    }
    ~ProcessingCommands() override { std::filesystem::remove_all(m_folder); }

    void write(VoxMRCData& data, const std::string& name) const {
        VoxMRCFileHandler handler;
        ASSERT_TRUE(handler.writeMRCFile(&data, m_folder + name));
    }
    VrkResult run(const std::vector<std::string>& arguments) const { return runVrk(arguments, m_folder); }
    bool exists(const std::string& name) const { return std::filesystem::exists(m_folder + name); }

    std::string m_folder = testing::TempDir() + "processing commands/";
};

}  // namespace

TEST_F(ProcessingCommands, LeadFromSeriesToVolume) {
    const VrkResult clean = run({"preprocess", "series.mrc", "-o", "clean.mrc", "--rotate", "30", "--smooth",
                                 "0.7", "--bin", "2", "--json", "--log", "pre.log"});
    ASSERT_EQ(clean.exitCode, 0) << clean.err;
    const Json json = Json::parse(clean.out);
    EXPECT_EQ(json["dims"], Json({32, 32, 5}));
    EXPECT_FLOAT_EQ(json["pixel_size"].get<float>(), 2e8F);
    EXPECT_EQ(json["steps"].size(), 6U);
    EXPECT_TRUE(exists("pre.log"));

    std::ofstream(m_folder + "calibration.txt") << "1e8 1.05e8\n";
    const VrkResult volume = run(
        {"reconstruct", "clean.mrc", "-o", "volume.mrc", "--fine-calibration", "calibration.txt", "--json"});
    ASSERT_EQ(volume.exitCode, 0) << volume.err;
    EXPECT_EQ(Json::parse(volume.out)["dims"], Json({32, 32, 21}));
    EXPECT_FLOAT_EQ(Json::parse(volume.out)["pixel_size"].get<float>(), 2.1e8F);
    const VrkResult fine = run({"reconstruct", "clean.mrc", "-o", "volume.mrc", "--fine-pixel-size", "3e8"});
    EXPECT_NE(fine.out.find("32 x 32 x 21 voxels"), std::string::npos) << fine.err;
    EXPECT_NE(fine.out.find("3e+08"), std::string::npos);
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
    std::ofstream(m_folder + "bad.txt") << "1e8\n";
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        const char* message;
    };
    const std::vector<Case> cases = {
        {{"preprocess", "none.mrc", "-o", "out.mrc"}, 1, "none.mrc"},
        {{"preprocess", "series.mrc", "-o", "series.mrc"}, 2, "another name"},
        {{"preprocess", "series.mrc", "-o", "out.mrc", "--rotate", "up"}, 2, "not 'up'"},
        {{"preprocess", "series.mrc", "-o", "out.mrc", "--rotate", "header"}, 1, "no tilt axis"},
        {{"preprocess", "series.mrc", "-o", "out.mrc", "--bin", "3"}, 2, "--bin"},
        {{"preprocess", "series.mrc", "-o", "no/out.mrc"}, 1, "does not exist"},
        {{"reconstruct", "wide.mrc", "-o", "out.mrc"}, 1, "20 x 10 pixels"},
        {{"reconstruct", "descending.mrc", "-o", "out.mrc"}, 1, "do not ascend"},
        {{"reconstruct", "series.mrc", "-o", "out.mrc", "--fine-calibration", "bad.txt"},
         1,
         "bad.txt, line 1"},
        {{"reconstruct", "series.mrc", "-o", "out.mrc", "--fine-calibration", "none"}, 1, "does not exist"},
        {{"reconstruct", "series.mrc", "-o", "out.mrc", "--fine-pixel-size", "-1"}, 2, "--fine-pixel-size"},
    };
    for (const Case& c : cases) {
        const VrkResult result = run(c.arguments);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(exists("out.mrc"));
    }
    EXPECT_EQ(run({"preprocess", "wide.mrc", "-o", "square.mrc"}).exitCode, 0);
    EXPECT_EQ(run({"reconstruct", "square.mrc", "-o", "out.mrc"}).exitCode, 0);
}
