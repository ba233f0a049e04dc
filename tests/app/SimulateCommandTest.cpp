// vrk simulate: what its options do to the series and to the truth.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "support/TemporaryFolder.h"

namespace {

using Json = nlohmann::json;

VrkResult simulate(const TemporaryFolder& folder, const std::string& more) {
    return runVrkLine("simulate --size 64 --dmin 2 --tilts 10:-10:-2 --cell 10,11,12,90,95,90 " + more +
                      " -o " + (folder / "s.mrc"));
}

TEST(SimulateCommand, WritesSeriesAndTruth) {
    const TemporaryFolder folder;
    const VrkResult result =
        simulate(folder, "--write-axis --axis 20 --kv 120 --centring C --list-reflections --json");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::unique_ptr<VoxMRCData> series(VoxMRCFileHandler().readMRCFile(folder / "s.mrc"));
    ASSERT_NE(series, nullptr);
    const Json truth = Json::parse(folder.read("s.truth.json"));
    EXPECT_EQ(Json::parse(result.out), truth);
    EXPECT_EQ(series->m_Header.type, MRCType::TILT_SERIES);
    EXPECT_EQ(series->GetDepth(), 11U);
    EXPECT_EQ(series->m_Header.tilt(0), 10);
    EXPECT_EQ(series->m_Header.value(SliceValue::TiltAxis, 3), 20);
    EXPECT_EQ(series->m_Header.value(SliceValue::HighTension, 10), 120);
    EXPECT_NEAR(series->m_Header.m_pixelsize, 1e10 / 2 / 28, 100);
    EXPECT_NEAR(truth["pixel_size"].get<double>(), 1e10 / 2 / 28, 1e-3);
    EXPECT_EQ(truth["cell"]["conventional"]["centring"], "C");
    EXPECT_NEAR(truth["wavelength"].get<double>(), 0.03349, 1e-5);
    EXPECT_EQ(truth["reflections"].size(), truth["reflections_in_sphere"].get<std::size_t>());
    // Half written files never bear the final name.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 2);
}

TEST(SimulateCommand, HeadersMayStateSomethingElse) {
    const TemporaryFolder folder;
    ASSERT_EQ(simulate(folder,
                       "--axis 20 --state-axis 25 --state-step -3 --state-pixel 1.5 --state-kv 300 "
                       "--tilt-offset 2 --tilt-scale 0.5")
                  .exitCode,
              0);
    const std::unique_ptr<VoxMRCData> series(VoxMRCFileHandler().readMRCFile(folder / "s.mrc"));
    const mrcH& header = series->m_Header;
    const Json truth = Json::parse(folder.read("s.truth.json"));
    EXPECT_EQ(truth["tilt_axis_deg"], 20);
    EXPECT_EQ(header.value(SliceValue::TiltAxis, 4), 25);
    EXPECT_EQ(truth["stated"]["tilt_axis_deg"], 25);
    EXPECT_NEAR(truth["tilts"][10].get<double>(), -3, 1e-9);
    EXPECT_EQ(header.tilt(10), -20);
    EXPECT_EQ(truth["stated"]["tilts"][10], -20);
    EXPECT_NEAR(header.m_pixelsize / truth["pixel_size"].get<double>(), 1.5, 1e-6);
    EXPECT_NEAR(truth["stated"]["pixel_size"].get<double>() / header.m_pixelsize, 1, 1e-6);
    EXPECT_EQ(truth["voltage_kv"], 200);
    EXPECT_EQ(header.value(SliceValue::HighTension, 0), 300);
    EXPECT_EQ(truth["stated"]["voltage_kv"], 300);
}

TEST(SimulateCommand, WrongUsageIsExitCodeTwo) {
    const TemporaryFolder folder;
    std::vector<RefusedLine> cases = {{"", 2, "--cell"}, {"--cell 1,2,3", 2, "--cell"}};
    for (const char* extra : {"--cif a.cif", "--tilts -60:60:0", "--tilts -60:60:0.1", "--tilts 0:nan:1",
                              "--orientation 1,2", "--orientation 1,0,0,0,1,0,1,0,0", "--mode sideways",
                              "--beam-along 1,0", "--stop-offset 1;2", "--dose nan"})
        cases.push_back({std::string("--cell 10,10,10,90,90,90 ") + extra, 2, ""});
    expectRefused(cases, folder / ".", "simulate -o s.mrc ");
    EXPECT_FALSE(std::filesystem::exists(folder / "s.mrc"));
}

}  // namespace
