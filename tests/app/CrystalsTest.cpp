// Two crystals in one series: both are found, each with its files, and one is where only one is asked for.

#include "app/RunVrk.h"
#include "support/JsonMatrix.h"

namespace {

class CrystalsTest : public SharedVrkTest {
protected:
    static void SetUpTestSuite() {
        SharedVrkTest::SetUpTestSuite();
        const std::string common =
            "simulate --cell 4.6,5.3,6.4,90,104,90 --size 128 --dmin 1.1 --seed 4 --tilts -60:60:2 --axis 6 "
            "--write-axis -o ";
        truth = jsonOf(common + "two.mrc --second-crystal 0.8");
        ASSERT_EQ(vrk(common + "one.mrc").exitCode, 0);
    }
    static void expectCell(const Json& cell, double within) {
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(cellOf(cell)[i], cellOf(truth["cell"]["primitive"])[i], within);
    }

    inline static Json truth;
};

TEST_F(CrystalsTest, BothAreFoundAndMeasured) {
    const Json found = jsonOf("run two.mrc -o two --no-pictures");
    const Json& crystals = found["crystals"];
    ASSERT_EQ(crystals.size(), 2U);
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

    for (const std::string name : {"two/cell.txt", "two/crystal2.cell.txt"}) {
        const Json again = jsonOf("index two/peaks.txt " + name + " -o x.hkl --lattice auto");
        EXPECT_EQ(again["cell"]["bravais"], "mP");
        EXPECT_GT(again["reflections"]["fraction_indexed"], 0.4) << name;
    }
    const Json cell = jsonOf("cell two/peaks.txt -o c.txt");
    ASSERT_EQ(cell["crystals"].size(), 1U);
    expectCell(cell["crystals"][0]["cell"], 0.12);
    EXPECT_TRUE(exists("c.crystal2.txt"));
    EXPECT_NEAR(soFarOf(*folder / "two"), 302823.7615, 1e-3);
    EXPECT_NEAR(soFarOf(*folder / "c.txt"), 237.0037, 1e-3);
    EXPECT_NEAR(soFarOf(*folder / "c.crystal2.txt"), 294.6529, 1e-3);
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
