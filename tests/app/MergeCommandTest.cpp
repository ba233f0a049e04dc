// vrk merge on results of crystals whose intensities, scales and bases are known.

#include <gemmi/mtz.hpp>

#include "app/RunVrk.h"
#include "merging/SimulatedCrystals.h"
#include "pipeline/formats/ReflectionTable.h"
#include "support/JsonMatrix.h"

namespace {

/// The files of a run that merging reads.
void writeResult(const vrk::CrystalData& crystal, const std::filesystem::path& folder) {
    std::filesystem::create_directory(folder);
    const Json cell = jsonOfCell(crystal.cell.cell);
    const Json summary = {{"parameters", {{"voltage_kv", crystal.kiloVolts}}},
                          {"intensities", {{"cell", cell}, {"resolution", {{"d_min", crystal.dMin}}}}},
                          {"crystals", {{{"bravais", crystal.bravais}, {"cell", cell}}}}};
    std::ofstream(folder / "summary.json") << summary;
    // One that was seen and not measured, and one of a crystal that is not there.
    std::vector<vrk::ListedReflection> list = {{.counts = 70}, {.crystal = 2, .sigma = 1}};
    for (const vrk::Observation& one : crystal.observations)
        list.push_back({.hkl = one.hkl,
                        .crystal = 1,
                        .spacing = one.spacing,
                        .intensity = one.intensity,
                        .sigma = one.sigma});
    vrk::writeReflectionTable(list, folder / "reflections.csv");
}

class MergeCommandTest : public SharedVrkTest {
protected:
    /// Crystals of a polar tetragonal structure, every second in swapped axes; bad has intensities of its
    /// own, other another cell.
    static void SetUpTestSuite() {
        SharedVrkTest::SetUpTestSuite();
        testing_support::SimulatedCrystals simulated{{6.5, 6.5, 8.3, 90, 90, 90}, 'P', "tP", "P 4"};
        Eigen::Matrix3d swap;
        swap << 0, 1, 0, 1, 0, 0, 0, 0, -1;
        simulated.bases = {Eigen::Matrix3d::Identity(), swap};
        simulated.random = 4;
        auto crystals = simulated.make(6);
        crystals[5].cell.cell[2] *= 1.05;
        const std::vector<const char*> names = {"r0", "r1", "r2", "r3", "bad", "other"};
        for (std::size_t i = 0; i < names.size(); ++i)
            writeResult(crystals[i], *folder / names[i]);
        crystals[5].observations.clear();
        writeResult(crystals[5], *folder / "empty");
    }
    static Json merged(const std::string& arguments) {
        return jsonOf("merge -o out --no-pictures " + arguments);
    }
};

TEST_F(MergeCommandTest, WritesOneDataSet) {
    const VrkResult result = vrk("merge r0 r1 r2 r3 empty -o first --formula SiO2 --log-level debug");
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(says(result.err, "empty has no intensities"));
    EXPECT_TRUE(says(result.out, "crystals      4 of 4 merged"));
    EXPECT_EQ(vrk("verify first").err, "");
    const Json summary = Json::parse(folder->read("first/merge.json"));
    const Json& all = summary["/intensities/overall"_json_pointer];
    EXPECT_EQ(summary["/intensities/laue/class"_json_pointer], "4/m");
    EXPECT_GT(summary["/intensities/cc_half_of_crystals"_json_pointer], 0.99);
    EXPECT_NEAR(summary["/cell/c"_json_pointer], 8.3, 1e-3);
    for (const Json& crystal : summary["crystals"]) {
        EXPECT_EQ(crystal["ways"], 2);
        EXPECT_GT(crystal["correlation"], 0.9);
    }
    const gemmi::Mtz mtz = gemmi::read_mtz_file(*folder / "first/merged.mtz");
    EXPECT_EQ(mtz.nreflections, all["unique"]);
    EXPECT_NEAR(mtz.cell.c, 8.3, 1e-3);
    EXPECT_EQ(mtz.spacegroup->laue_str(), std::string("4/m"));
    EXPECT_TRUE(says(folder->read("first/crystal.ins"), {"SYMM -Y,X,Z", "SFAC Si"}));
    EXPECT_NEAR(soFarOf(*folder / "first"), 90094.4698, 1e-3);
}

TEST_F(MergeCommandTest, OptionsDecideWhichCrystalsTakePart) {
    expectRefused({{"merge r0 r1 r2 other -o none", 2, "\n  other: tP 6.500 6.500 8.715"}}, *folder / ".");
    EXPECT_FALSE(std::filesystem::exists(*folder / "none/merge.json"));
    const auto used = [](const Json& summary) {
        std::string text;
        for (const Json& crystal : summary["crystals"])
            text += crystal["used"].get<bool>() ? '1' : '0';
        return text;
    };
    EXPECT_EQ(used(merged("r0 r1 r2 other --leave-out")), "1110");
    EXPECT_TRUE(says(vrk("merge r0 r1 r2 other --leave-out -o out --no-pictures").out,
                     {"3 of 4 merged, cells within 0.0", "\nother is left out: "}));
    EXPECT_EQ(used(merged("r0 r1 r2 other --cell-tolerance 6")), "1111");
    EXPECT_EQ(used(merged("r0 bad r1 r2 r3")), "10111");
    EXPECT_EQ(used(merged("r0 bad r1 r2 r3 --keep-all")), "11111");
    const Json coarse = merged("r0 r1 --d-min 1.6");
    EXPECT_NEAR(coarse["/intensities/overall/d_min"_json_pointer], 1.6, 1e-9);
}

TEST_F(MergeCommandTest, ReferenceDecidesTheIndices) {
    // r0 and r2 have the axes of the structure, r1 and r3 have a and b exchanged and c turned round.
    for (const auto& [reference, sign] : {std::pair("r0", 1.0), std::pair("r3", -1.0)}) {
        const Json crystals = merged(std::string("r0 r1 r2 --reference ") + reference)["crystals"];
        ASSERT_EQ(crystals.size(), 3U);
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_EQ(crystals[i]["base"][2][2], i == 1 ? -sign : sign) << reference;
    }
    // A data set from before, as it lies there, or as an HKL file without and with blanks between its
    // columns.
    ASSERT_EQ(vrk("merge r0 r2 r3 -o turned --no-pictures --reference r3").exitCode, 0);
    const std::string hkl = folder->read("turned/merged.hkl");
    std::filesystem::create_directory(*folder / "own");
    folder->write("own/plain.hkl", hkl);
    folder->write("own/instructed.hkl", hkl);
    folder->write("own/instructed.res", "TITL x\nCELL 0.02508 6.5 6.5 8.3 90 90 90\nLATT -1\n");
    std::string blanks;
    for (std::size_t at = 0; at + 28 < hkl.size(); at += 29)
        blanks += hkl.substr(at, 4) + ' ' + hkl.substr(at + 4, 4) + ' ' + hkl.substr(at + 8, 4) + ' ' +
                  hkl.substr(at + 12, 8) + ' ' + hkl.substr(at + 20, 8) + " 1\r\n";
    folder->write("own/blanks.hkl", blanks);
    const std::string cell = " --reference-cell 6.5,6.5,8.3,90,90,90";
    for (const std::string& reference :
         {std::string("turned"), std::string("turned/reflections.hkl"), std::string("own/instructed.hkl"),
          "own/plain.hkl" + cell, "own/blanks.hkl" + cell}) {
        const Json crystals = merged("r0 r1 r2 --reference " + reference)["crystals"];
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_EQ(crystals[i]["base"][2][2], i == 1 ? 1.0 : -1.0) << reference;
    }
    folder->write("own/text.hkl", "h k l\n");
    expectRefused({{"-o m1 --reference own/plain.hkl", 2, "nothing says the cell"},
                   {"-o m2 --reference own/text.hkl" + cell, 1, "line 1: that is not h, k, l"},
                   {"-o m3 --reference own/plain.hkl --reference-cell 6.5,6.5", 2, "takes six numbers"},
                   {"-o m4 --reference own/plain.hkl --reference-cell 7.5,6.5,8.3,90,90,90", 2,
                    "is not that of the crystals"},
                   {"-o m5 --reference r3" + cell, 2, "is a folder, which says its cell itself"},
                   {"-o m6 --reference nowhere.hkl", 2, "there is no reference"}},
                  *folder / ".", "merge r0 r1 --no-pictures ");
}

TEST_F(MergeCommandTest, RefusesWhatItCannotMerge) {
    expectRefused({{"r0 r0 -o m1", 2, "given twice"},
                   {"r0 empty -o m2", 2, "two crystals at least"},
                   {"r0 nothing -o m3", 2, "holds no summary.json"},
                   {"r0 r1 -o m4 --reference other", 2, "is not that of the crystals"},
                   {"r0 r1 -o r2", 2, "give another folder"}},
                  *folder / ".", "merge --no-pictures ");
    EXPECT_FALSE(folder->read("r2/reflections.csv").empty());
}

}  // namespace
