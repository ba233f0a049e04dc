// Two crystals in one series: both are found, each with its files, and one is where only one is asked for.

#include "app/RunVrk.h"
#include "pipeline/base/NumberText.h"

namespace {

class CrystalsTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        folder = std::make_unique<TemporaryFolder>();
        const std::string common =
            "simulate --cell 4.6,5.3,6.4,90,104,90 --size 128 --dmin 1.1 --seed 4 --tilts -60:60:2 --axis 6 "
            "--write-axis -o ";
        truth = jsonOf(common + "two.mrc --second-crystal 0.8");
        ASSERT_EQ(vrk(common + "one.mrc").exitCode, 0);
    }
    static void TearDownTestSuite() { folder.reset(); }
    static VrkResult vrk(const std::string& line) { return runVrkLine(line, *folder / "."); }
    static Json jsonOf(const std::string& line) { return jsonOfVrk(line, *folder / "."); }
    static bool exists(const std::string& name) { return std::filesystem::exists(*folder / name); }

    static void expectCell(const Json& cell, double within) {
        const Json& expected = truth["cell"]["primitive"];
        for (const char* key : {"a", "b", "c"})
            EXPECT_NEAR(cell[key], expected[key], within) << key;
    }

    inline static std::unique_ptr<TemporaryFolder> folder;
    inline static Json truth;
};

TEST_F(CrystalsTest, BothAreFoundAndMeasured) {
    const VrkResult printed = vrk("run two.mrc -o two --no-pictures");
    const Json found = Json::parse(folder->read("two/summary.json"));
    const Json& crystals = found["crystals"];
    ASSERT_EQ(crystals.size(), 2U);
    const auto number = [&](const char* key) { return crystals[1]["cell"][key].get<double>(); };
    EXPECT_TRUE(says(
        printed.out,
        vrk::formatted("  2: %3.0f %% of the strong reflections, mP  %.3f  %.3f  %.3f  90.00  %.2f  90.00, "
                       "confidence high, turned by %.1f degrees\n",
                       100 * crystals[1]["strong_share"].get<double>(), number("a"), number("b"), number("c"),
                       number("beta"), crystals[1]["turn_deg"].get<double>())));
    double share = 0;
    for (const Json& crystal : crystals) {
        expectCell(crystal["reduced"], 0.02);
        EXPECT_EQ(crystal["confidence"], "high") << crystal["reasons"];
        EXPECT_EQ(crystal["bravais"], "mP");
        EXPECT_GT(crystal["strong_share"], 0.3);
        EXPECT_GT(crystal["observations"], 100);
        share += crystal["strong_share"].get<double>();
    }
    EXPECT_GT(share, 0.75);
    EXPECT_LE(share, 1.0);
    EXPECT_TRUE(crystals[1]["same_cell"].get<bool>());
    EXPECT_GT(crystals[1]["turn_deg"], 5);
    // Equivalents agree since the spots of the other crystal are left out.
    EXPECT_LT(found["intensities"]["overall"]["r_int"], 0.1);
    EXPECT_TRUE(exists("two/crystal2.hkl") && exists("two/crystal2.ins"));

    ASSERT_EQ(vrk("index two/peaks.txt two/crystal2.cell.txt -o x.hkl --json").exitCode, 0);
    const Json cell = jsonOf("cell two/peaks.txt -o c.txt");
    ASSERT_EQ(cell["crystals"].size(), 1U);
    expectCell(cell["crystals"][0]["cell"], 0.12);
    EXPECT_TRUE(exists("c.crystal2.txt"));
}

// What nobody knows of the frames does not hide a crystal.
TEST_F(CrystalsTest, TriclinicOnesAreFoundWithoutACalibration) {
    vrk("simulate --cell 4.6,5.3,6.4,98,104,82 --size 128 --dmin 1.1 --seed 4 --tilts -60:60:2 --axis 6 "
        "--write-axis --ellipse 0.014 --second-crystal 0.8 -o aP.mrc");
    const Json found = jsonOf("run aP.mrc -o aP --no-pictures --no-integration");
    EXPECT_EQ(found["confidence"]["lattice"], "fair") << found["confidence"]["reasons"];
    ASSERT_EQ(found["crystals"].size(), 2U);
    for (const Json& crystal : found["crystals"]) {
        EXPECT_EQ(crystal["confidence"], "low");
        EXPECT_GT(crystal["strong_share"], 0.3);
    }
}

TEST_F(CrystalsTest, OneIsWhereOneIsAskedForOrThere) {
    const auto crystals = [](const std::string& line) {
        return jsonOf("run " + line + " -o out --tilt-axis 6 --no-pictures --no-integration");
    };
    const Json asked = crystals("two.mrc --crystals 1");
    EXPECT_EQ(asked["crystals"].size(), 1U);
    EXPECT_NE(asked["confidence"]["level"], "high") << "half of the reflections are not explained";
    EXPECT_FALSE(exists("out/crystal2.cell.txt"));
    EXPECT_EQ(jsonOf("cell out/peaks.txt -o d.txt --crystals 1")["crystals"].size(), 0U);
    const Json alone = crystals("one.mrc --crystals 9");
    EXPECT_EQ(alone["crystals"].size(), 1U);
    EXPECT_EQ(alone["confidence"]["level"], "high");
    EXPECT_GT(alone["crystals"][0]["strong_share"], 0.95);
}

}  // namespace
