#include "app/RunVrk.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/UnitCell.h"

namespace {

/// A face-centred cubic crystal of 8 Angstrom as a list of exact, noisy positions and a cell file.
class IndexCommandTest : public VrkTest {
protected:
    IndexCommandTest() {
        const double p = 12.5;  // half of the conventional edge in reciprocal space, voxels
        const double vectors[3][3] = {{-p, p, p}, {p, -p, p}, {p, p, -p}};
        UnitCell cell(vectors[0], vectors[1], vectors[2], 5e7, false, true, LATTICE::aP);
        CellFileImportExport::writeCellFile_version_2(folder / "cell.txt", &cell);
        std::mt19937 random(2);
        std::normal_distribution<double> noise(0.0, 0.2);
        std::ostringstream list;
        list << "# x y z intensity\n";
        forEachIndex(8, 8, 8, [&](int h, int k, int l) {
            const bool present = (h + k) % 2 == 0 && (k + l) % 2 == 0;  // F: all odd or all even
            if (!present || (h == 0 && k == 0 && l == 0)) return;
            list << h * p + noise(random) << ',' << k * p + noise(random) << ',' << l * p + noise(random)
                 << ' ' << 1000 + 3 * h << " more\n";
            ++m_count;
        });
        folder.write("peaks.txt", list.str());
    }

    int m_count = 0;
};

TEST_F(IndexCommandTest, WritesTheConventionalSettingOnRequest) {
    const Json json = jsonOf("index peaks.txt cell.txt -o x.hkl --lattice auto --pixel-size 5e7");
    EXPECT_EQ(json["cell"]["bravais"], "cF");
    // Conventional direct edge: 1 / (12.5 voxels of 5e7 / m).
    EXPECT_NEAR(json["cell"]["parameters"][0], 16.0, 0.01);
    EXPECT_GT(json["reflections"]["indexed"], 0.99 * m_count);
    const std::vector<std::string> lines = folder.lines("x.hkl");
    for (const std::string& line : lines) {
        const int h = std::stoi(line.substr(0, 4)), k = std::stoi(line.substr(4, 4)),
                  l = std::stoi(line.substr(8, 4));
        ASSERT_TRUE((h + k) % 2 == 0 && (k + l) % 2 == 0) << line;
        ASSERT_NEAR(std::stod(line.substr(12, 8)), 1000.0, 24.1);
    }
    EXPECT_EQ(lines.size(), json["reflections"]["indexed"]);
}

TEST_F(IndexCommandTest, ChoosesTheFormatAndRefinesTheCellOfAListWithoutIntensities) {
    const std::string index = "index peaks.txt cell.txt --pixel-size 5e7 ";
    for (const auto& [name, text] : {std::pair("x.mtz", "MTZ "), {"x.cif", "_refln_index_h"}}) {
        jsonOf(index + "-o " + name);
        EXPECT_TRUE(says(folder.read(name), text));
    }
    const VrkResult shelx = vrk(index + "-o y.hkl --format shelx --voltage 300 --formula SiO2");
    EXPECT_EQ(shelx.exitCode, 0) << shelx.err;
    EXPECT_TRUE(says(shelx.out, "handedness "));
    EXPECT_TRUE(says(folder.read("y.ins"), {"CELL 0.019687 ", "SFAC Si "}));

    std::string bare;
    for (const std::string& line : folder.lines("peaks.txt"))
        bare += line.substr(0, line.find(' ')) + '\n';
    folder.write("peaks.txt", "#" + bare);
    EXPECT_TRUE(says(vrk(index + "--lattice cF --cell-out refined.txt").out,
                     {"cell cF: 1", "written: refined.txt\n"}));
    UnitCell refined;
    ASSERT_TRUE(CellFileImportExport::loadCellFile(folder / "refined.txt", &refined, 5e7));
    EXPECT_NEAR(refined.getLengthOfA(), 12.5 * std::sqrt(3.0), 0.05);
}

TEST_F(IndexCommandTest, SaysWhatIsWrong) {
    folder.write("other.txt", "1 2 3\nabc\n");
    folder.write("bare.txt", "1 2 3 4\n1 2 3\n");
    folder.write("empty.txt", "# nothing\n");
    folder.write("head.txt", "#VRKPEAKSVERSION 2\n#\n0 0 0 1 2\n#\n1e8 0 0\n#\n1\n#\n1 2 3\n");
    UnitCell flat;
    CellFileImportExport::writeCellFile_version_1(folder / "old.cell", &flat);
    const double a[3] = {1, 2, 3}, b[3] = {2, 4, 6};
    flat.setNewBase(a, b, a, false, true);
    CellFileImportExport::writeCellFile_version_2(folder / "flat.txt", &flat);
    const std::vector<RefusedLine> cases = {
        {"bare.txt cell.txt -o x.hkl --pixel-size 5e7", 2, "holds no intensities"},
        {"peaks.txt cell.txt -o x.hkl --voltage 200000", 2, "looks like volts"},
        {"peaks.txt old.cell -o x.hkl", 2, "--pixel-size"},
        {"other.txt cell.txt -o x.hkl", 1, "line 2"},
        {"empty.txt cell.txt -o x.hkl", 3, "no reflections"},
        {"head.txt cell.txt -o x.hkl", 1, "line 3"},
        {"peaks.txt peaks.txt -o x.hkl --pixel-size 5e7", 1, "cell from"},
        {"peaks.txt flat.txt -o x.hkl --pixel-size 5e7", 1, "plane"},
        {"peaks.txt cell.txt -o x.hkl --pixel-size 5e7 --lattice hP", 2, "fits cF"},
        {"peaks.txt cell.txt -o x.hkl --pixel-size 5e7 --formula Q", 2, "formula"},
        {"peaks.txt cell.txt -o no/x.hkl --pixel-size 5e7", 1, "folder"},
        {"peaks.txt cell.txt -o y.hkl --pixel-size 5e7 --plots peaks.txt", 1, "peaks.txt"},
    };
    expectRefused(cases, folder / ".", "index ");
    EXPECT_TRUE(folder.read("x.hkl").empty());
}

}  // namespace
