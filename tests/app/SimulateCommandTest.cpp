// vrk simulate: what its options do to the series and to the truth.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "support/TemporaryFolder.h"

namespace {

using nlohmann::json;

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

/// A small series with further options.
VrkResult simulate(const TemporaryFolder& folder, const std::string& more) {
    std::string line = "simulate " + more;
    if (more.find("--cif") == std::string::npos) line += " --cell 10,11,12,90,95,90";
    for (const char* usual : {"--size 64", "--dmin 2", "--tilts 10:-10:-2"})
        if (more.find(words(usual)[0]) == std::string::npos) line += std::string(" ") + usual;
    return runVrk(words(line + " -o " + (folder / "s.mrc")));
}

TEST(SimulateCommand, WritesSeriesAndTruth) {
    const TemporaryFolder folder;
    const VrkResult result =
        simulate(folder, "--write-axis --axis 20 --kv 120 --centring C --list-reflections --json");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::unique_ptr<VoxMRCData> series(VoxMRCFileHandler().readMRCFile(folder / "s.mrc"));
    ASSERT_NE(series, nullptr);
    const json truth = json::parse(folder.read("s.truth.json"));
    EXPECT_EQ(json::parse(result.out), truth);
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
    const json truth = json::parse(folder.read("s.truth.json"));
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

TEST(SimulateCommand, EveryOptionChangesTheSeriesAndIsInTheTruth) {
    struct Case {
        const char* options;
        const char* place;  ///< in the truth; of the last option
        json expected;
    };
    const TemporaryFolder folder;
    folder.write("salt.cif",
                 "data_salt\n_cell_length_a 5.64\n_cell_length_b 5.64\n_cell_length_c 5.64\n"
                 "_cell_angle_alpha 90\n_cell_angle_beta 90\n_cell_angle_gamma 90\n"
                 "loop_\n_atom_site_label\n_atom_site_type_symbol\n_atom_site_fract_x\n"
                 "_atom_site_fract_y\n_atom_site_fract_z\nNa1 Na 0 0 0\n");
    const std::string cif = "--cif " + (folder / "salt.cif");
    const std::vector<Case> cases = {
        {cif.c_str(), "/cell/conventional/a", 5.64},
        {"--centring I", "/cell/conventional/centring", "I"},
        {"--orientation 0,0,90", "/orientation_matrix/1/0", 1.0},
        {"--beam-along 0,0,1", "/settings/beam_along", {0, 0, 1}},
        {"--axis-along 0,1,0", "/settings/axis_along", {0, 1, 0}},
        {"--beam-along 0,0,1 --off-zone 2", "/settings/off_zone_deg", 2},
        {"--dmin 3", "/settings/dmin", 3},
        {"--b-factor 20", "/settings/b_factor", 20},
        {"--rocking 0.004", "/settings/rocking_width", 0.004},
        {"--even", "/settings/even", true},
        {"--asymmetry 1", "/settings/asymmetry", 1},
        {"--second-crystal 0.5", "/settings/second_crystal", 0.5},
        {"--handedness -1", "/handedness", -1},
        {"--tilts -10:10:2", "/tilts/0", -10},
        {"--tilt-offset 1", "/tilts/0", 11.0},
        {"--tilt-scale 1.1", "/tilts/0", 11.0},
        {"--tilt-jitter 0.5", "/settings/tilt_errors/jitter_deg", 0.5},
        {"--mode stepwise", "/settings/mode", "stepwise"},
        {"--frame-rotation 1", "/settings/frame_rotation_deg", 1},
        {"--mode precession --precession-angle 2", "/settings/precession_angle_deg", 2},
        {"--axis 20", "/tilt_axis_deg", 20},
        {"--axis-tilt 4", "/axis_tilt_deg", 4},
        {"--kv 60", "/voltage_kv", 60},
        {"--missing 2", "/tilts/8", -10},
        {"--blank 1", "/blank_frames/0", 10},
        {"--seed 2", "/settings/seed", 2},
        {"--write-axis --axis 5", "/stated/tilt_axis_deg", 5},
        {"--state-axis 7", "/stated/tilt_axis_deg", 7},
        {"--state-step -1", "/stated/tilts/10", 0},
        {"--state-pixel 0", "/stated/pixel_size", 0},
        {"--state-kv 0", "/stated/voltage_kv", 0},
        {"--centre-offset -3,4.5", "/centres/0", {28.5, 36}},
        {"--drift 3", "/settings/centre/drift_px", 3},
        {"--jump 3", "/settings/centre/jump_px", 3},
        {"--jump 3 --jumps 2", "/settings/centre/jumps", 2},
        {"--centre-jitter 1", "/settings/centre/jitter_px", 1},
        {"--counts sphere", "/settings/exposure", 1},
        {"--dose 0.25", "/settings/exposure", 0.5},
        {"--peak 500", "/settings/peak_counts", 500},
        {"--spot 2", "/settings/spot_width_px", 2},
        {"--direct-beam 100", "/settings/background/direct_beam", 100},
        {"--background 0.5", "/settings/background/halo", 0.5},
        {"--halo-gradient 0.3", "/settings/background/halo_gradient", 0.3},
        {"--halo-gradient 0.3 --halo-azimuth 40", "/settings/background/halo_azimuth_deg", 40},
        {"--ice 50", "/settings/background/ice", 50},
        {"--ellipse 0.05", "/settings/distortion/ellipse", 0.05},
        {"--ellipse 0.05 --ellipse-azimuth 40", "/settings/distortion/ellipse_azimuth_deg", 40},
        {"--radial 0.05", "/settings/distortion/radial", 0.05},
        {"--beam-stop", "/settings/beam_stop/width_px", 1.28},
        {"--stop-direction 40", "/settings/beam_stop/direction_deg", 40},
        {"--stop-width 8", "/settings/beam_stop/width_px", 8},
        {"--stop-disc 8", "/settings/beam_stop/disc_radius_px", 8},
        {"--stop-offset 2,-3", "/settings/beam_stop/offset_px", {2, -3}},
        {"--stop-transmission 0.2", "/settings/beam_stop/transmission", 0.2},
        {"--stop-pedestal 20", "/settings/beam_stop/pedestal", 20},
        {"--size 80", "/settings/detector/size", 80},
        {"--noise 0", "/settings/detector/noise", 0},
        {"--saturation 300", "/settings/detector/saturation", 300},
        {"--hot-pixels 4", "/settings/detector/hot_pixels", 4},
        {"--zingers 4", "/settings/detector/zingers", 4},
        {"--cross", "/settings/detector/cross", true},
    };
    ASSERT_EQ(simulate(folder, "").exitCode, 0);
    std::set<std::string> seen = {folder.read("s.mrc")};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.options);
        const VrkResult result = simulate(folder, one.options);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const json told = json::parse(folder.read("s.truth.json")).at(json::json_pointer(one.place));
        if (told.is_number_float())
            EXPECT_NEAR(told.get<double>(), one.expected.get<double>(), 1e-9);
        else
            EXPECT_EQ(told, one.expected);
        EXPECT_TRUE(seen.insert(folder.read("s.mrc")).second) << "another series than all before";
    }
    // Nothing is left out.
    std::string tested = " --cell --list-reflections --json --output --help ";
    for (const Case& one : cases)
        tested += one.options + std::string(" ");
    for (const std::string& word : words(runVrk({"simulate", "--help"}).out)) {
        const std::string name = word.substr(word.find(',') + 1);
        if (name.rfind("--", 0) != 0 || name.find('.') != std::string::npos) continue;
        EXPECT_NE(tested.find(name + ' '), std::string::npos) << name;
    }
}

TEST(SimulateCommand, WrongUsageIsExitCodeTwo) {
    const TemporaryFolder folder;
    for (const char* extra :
         {"", "--cell 1,2,3", "--cell 10,10,10,90,90,90 --cif a.cif",
          "--cell 10,10,10,90,90,90 --tilts -60:60:0", "--cell 10,10,10,90,90,90 --tilts -60:60:0.1",
          "--cell 10,10,10,90,90,90 --tilts 0:nan:1", "--cell 10,10,10,90,90,90 --orientation 1,2",
          "--cell 10,10,10,90,90,90 --orientation 1,0,0,0,1,0,1,0,0",
          "--cell 10,10,10,90,90,90 --mode sideways", "--cell 10,10,10,90,90,90 --beam-along 1,0",
          "--cell 10,10,10,90,90,90 --stop-offset 1;2", "--cell 10,10,10,90,90,90 --dose nan"}) {
        std::vector<std::string> arguments = {"simulate", "-o", folder / "s.mrc"};
        for (const std::string& word : words(extra))
            arguments.push_back(word);
        const VrkResult result = runVrk(arguments);
        EXPECT_EQ(result.exitCode, 2) << extra << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(std::filesystem::exists(folder / "s.mrc"));
    }
}

}  // namespace
