// vrk calibrate, and what its file does for other crystals.

#include "app/RunVrk.h"
#include "support/JsonMatrix.h"

namespace {

class CalibrateCommandTest : public VrkTest {
protected:
    /// A crystal in the microscope of the test, which states a pixel size 2 % too large.
    void simulate(const std::string& name, const std::string& crystal) const {
        jsonOf("simulate -o " + name + " --size 192 --dmin 1.2 --tilts -60:60:3 --write-axis --axis 33 " +
               "--ellipse 0.014 --ellipse-azimuth 64 --radial 0.006 --tilt-scale 1.008 --state-pixel 1.02 " +
               crystal);
    }
};

TEST_F(CalibrateCommandTest, PutsAnotherCrystalRightThatCouldNotTell) {
    simulate("a.mrc", "--cell 8.1,8.1,8.1,90,90,90 --centring I --seed 3");
    simulate("b.mrc", "--cell 6.3,7.4,8.2,75,82,68 --seed 5");
    // The files of a run tell nearly the same as the series.
    ASSERT_EQ(vrk("run a.mrc -o a --no-pictures --no-integration").exitCode, 0);
    const Json found = jsonOf("calibrate a.mrc a -o d.json --cell 8.1,8.1,8.1,90,90,90");
    for (const auto& [name, value, within] : {std::tuple("ellipse", 0.014, 5e-4),
                                              {"ellipse_azimuth_deg", 64, 2},
                                              {"radial", 0.006, 0.0015},
                                              {"tilt_scale", 1.008, 0.001},
                                              {"axis_angle_deg", 33, 0.1},
                                              {"pixel_scale", 1 / 1.02, 0.001}})
        EXPECT_NEAR(found[name]["value"], value, within) << name;
    EXPECT_EQ(found["scatter"]["ellipse"]["series"], 2);
    EXPECT_LT(found["scatter"]["ellipse"]["deviation"], 3e-4);

    const Json plain = jsonOf("run b.mrc -o plain --no-pictures --no-integration");
    const Json right = jsonOf("run b.mrc -o right --no-pictures --distortion d.json");
    const auto truth = cellOf(jsonFile("b.truth.json")["cell"]["primitive"]);
    const auto error = [&](const Json& cells) {
        double most = 0;
        for (std::size_t i = 0; i < 3; ++i)
            most = std::max(most, std::abs(cellOf(cells)[i] / truth[i] - 1));
        return most;
    };
    EXPECT_GT(error(plain["cell"]["reduced"]), 0.01);
    EXPECT_LT(error(right["cell"]["reduced"]), 0.001);
    EXPECT_LT(error(right["cell"]["conventional"]), 0.001);
    EXPECT_LT(error(right["intensities"]["cell"]), 0.001);
    EXPECT_LT(right["intensities"]["geometry"]["residual_px"], 0.25);
    for (const auto& term : right["intensities"]["geometry"]["terms"])
        EXPECT_TRUE(term == "spiral" || term == "mosaicity" || term == "tilts") << term;
    EXPECT_EQ(right["instrument"]["known"]["terms"].size(), 7U);
    EXPECT_NEAR(right["tilt_axis"]["refined_deg"], 33, 0.1);
    EXPECT_LT(right["tilt_axis"]["refined_esd_deg"], 0.05);
    EXPECT_NEAR(soFarOf(folder / "."), 542645.9098, 1e-3);
}

TEST_F(CalibrateCommandTest, RefusesWhatTellsNothing) {
    simulate("a.mrc", "--cell 8.1,8.1,8.1,90,90,90 --centring I --seed 3");
    const std::vector<RefusedLine> cases = {
        {"calibrate a.mrc -o d.json --cell 8,8,8", 2, "--cell takes a,b,c"},
        {"calibrate a.mrc -o d.json --cell 8.1,8.1,9.9,90,90,90", 3, "which is not that of 8.10"},
        {"calibrate . -o d.json", 1, "holds no summary.json"},
        {"run a.mrc -o r --distortion a.truth.json", 1, "vrk calibrate"},
        {"run a.mrc -o r --distortion none.json", 1, "none.json"}};
    expectRefused(cases, folder / ".");
    EXPECT_FALSE(exists("d.json"));
}

}  // namespace
