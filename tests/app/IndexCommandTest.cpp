#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "app/RunVrk.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/UnitCell.h"
#include "support/TemporaryFolder.h"

namespace {

/// A face-centred cubic crystal of 8 Angstrom as a list of exact, noisy positions and a cell file.
class IndexCommandTest : public testing::Test {
protected:
    IndexCommandTest() {
        const double p = 12.5;  // half of the conventional edge in reciprocal space, voxels
        const double vectors[3][3] = {{-p, p, p}, {p, -p, p}, {p, p, -p}};
        UnitCell cell(vectors[0], vectors[1], vectors[2], 5e7, false, true, LATTICE::aP);
        CellFileImportExport::writeCellFile_version_2(m_folder / "cell.txt", &cell);
        std::mt19937 random(2);
        std::normal_distribution<double> noise(0.0, 0.2);
        std::ostringstream list;
        list << "# x y z intensity\n";
        for (int h = -8; h <= 8; ++h)
            for (int k = -8; k <= 8; ++k)
                for (int l = -8; l <= 8; ++l) {
                    const bool present = (h + k) % 2 == 0 && (k + l) % 2 == 0;  // F: all odd or all even
                    if (!present || (h == 0 && k == 0 && l == 0)) continue;
                    list << h * p + noise(random) << ',' << k * p + noise(random) << ','
                         << l * p + noise(random) << ' ' << 1000 + 3 * h << " more\n";
                    ++m_count;
                }
        m_folder.write("peaks.txt", list.str());
    }

    VrkResult index(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"index", "peaks.txt", "cell.txt"});
        return runVrk(arguments, m_folder / ".");
    }

    TemporaryFolder m_folder;
    int m_count = 0;
};

TEST_F(IndexCommandTest, WritesTheConventionalSettingOnRequest) {
    const VrkResult run = index({"-o", "x.hkl", "--lattice", "auto", "--pixel-size", "5e7", "--json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto json = nlohmann::json::parse(run.out);
    EXPECT_EQ(json["cell"]["bravais"], "cF");
    // Conventional direct edge: 1 / (12.5 voxels of 5e7 / m).
    EXPECT_NEAR(json["cell"]["parameters"][0], 16.0, 0.01);
    EXPECT_GT(json["reflections"]["indexed"], 0.99 * m_count);
    std::istringstream lines(m_folder.read("x.hkl"));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        const int h = std::stoi(line.substr(0, 4)), k = std::stoi(line.substr(4, 4)),
                  l = std::stoi(line.substr(8, 4));
        ASSERT_TRUE((h + k) % 2 == 0 && (k + l) % 2 == 0) << line;
        ASSERT_NEAR(std::stod(line.substr(12, 8)), 1000.0, 24.1);
    }
    EXPECT_EQ(count, json["reflections"]["indexed"]);
}

TEST_F(IndexCommandTest, RefinesTheCellOfAListWithoutIntensities) {
    std::string bare;
    std::istringstream lines(m_folder.read("peaks.txt"));
    for (std::string line; std::getline(lines, line);)
        bare += line.substr(0, line.find(' ')) + '\n';
    m_folder.write("peaks.txt", "#" + bare);
    const VrkResult run = index({"--pixel-size", "5e7", "--lattice", "cF", "--cell-out", "refined.txt"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("cell cF: 1"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("written: refined.txt\n"), std::string::npos) << run.out;
}

TEST_F(IndexCommandTest, ChoosesTheFormat) {
    EXPECT_EQ(index({"-o", "x.mtz", "--pixel-size", "5e7"}).exitCode, 0);
    EXPECT_EQ(m_folder.read("x.mtz").substr(0, 4), "MTZ ");
    EXPECT_EQ(index({"-o", "x.cif", "--pixel-size", "5e7"}).exitCode, 0);
    EXPECT_NE(m_folder.read("x.cif").find("_refln_index_h"), std::string::npos);
    const VrkResult shelx = index({"-o", "y.hkl", "--format", "shelx", "--voltage", "300", "--pixel-size",
                                   "5e7", "--formula", "Si O2", "--cell-out", "refined.txt"});
    EXPECT_EQ(shelx.exitCode, 0) << shelx.err;
    EXPECT_NE(shelx.out.find("handedness "), std::string::npos);
    EXPECT_NE(m_folder.read("y.ins").find("CELL 0.019687 "), std::string::npos);
    UnitCell refined;
    ASSERT_TRUE(CellFileImportExport::loadCellFile(m_folder / "refined.txt", &refined, 5e7));
    EXPECT_NEAR(refined.getLengthOfA(), 12.5 * std::sqrt(3.0), 0.05);
}

TEST_F(IndexCommandTest, SaysWhatIsWrong) {
    m_folder.write("other.txt", "1 2 3\nabc\n");
    m_folder.write("bare.txt", "1 2 3 4\n1 2 3\n");
    m_folder.write("empty.txt", "# nothing\n");
    m_folder.write("head.txt", "#VRKPEAKSVERSION 2\n#\n0 0 0 1 2\n#\n1e8 0 0\n#\n1\n#\n1 2 3\n");
    UnitCell flat;
    CellFileImportExport::writeCellFile_version_1(m_folder / "old.cell", &flat);
    const double a[3] = {1, 2, 3}, b[3] = {2, 4, 6};
    flat.setNewBase(a, b, a, false, true);
    CellFileImportExport::writeCellFile_version_2(m_folder / "flat.txt", &flat);
    const std::vector<RefusedLine> cases = {
        {"bare.txt cell.txt -o x.hkl --pixel-size 5e7", 2, "holds no intensities"},
        {"peaks.txt cell.txt -o x.hkl --voltage 200000", 2, "looks like volts"},
        {"peaks.txt old.cell -o x.hkl", 2, "--pixel-size"},
        {"none.txt cell.txt -o x.hkl", 1, "none.txt"},
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
    expectRefused(cases, m_folder / ".", "index ");
    EXPECT_TRUE(m_folder.read("x.hkl").empty());
}

}  // namespace
