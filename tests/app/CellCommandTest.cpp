#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "app/RunVrk.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/UnitCell.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/ReflexVector.h"
#include "support/TemporaryFolder.h"

namespace {

/// An I-centred tetragonal crystal, a = 10, c = 18 Angstrom, at 5e7 / m per voxel: as a list about 0, 0, 0
/// and as the peak file of a volume of 160 voxels along each axis. One reflection in five is wrong.
class CellCommandTest : public testing::Test {
protected:
    CellCommandTest() {
        std::mt19937 random(4);
        std::normal_distribution<double> noise(0.0, 0.3);
        std::uniform_real_distribution<double> anywhere(-70.0, 70.0);
        std::ostringstream list;
        ReflexVectorPtr peaks(new ReflexVector);
        const auto add = [&](double x, double y, double z) {
            list << x << ' ' << y << ' ' << z << " 100 1 17\n";
            peaks->push_back(new Reflex(79.5 + x, 79.5 + y, 79.5 + z));
            ++m_count;
        };
        const double a = 20.0, c = 1e10 / (5e7 * 18.0);
        for (int h = -7; h <= 7; ++h)
            for (int k = -7; k <= 7; ++k)
                for (int l = -7; l <= 7; ++l) {
                    const double x = 0.8 * a * h - 0.6 * c * l, y = a * k, z = 0.6 * a * h + 0.8 * c * l;
                    const double r = std::hypot(x, y, z);
                    if ((h + k + l) % 2 != 0 || r < 5.0 || r > 70.0) continue;
                    add(x + noise(random), y + noise(random), z + noise(random));
                    if (m_count % 5 == 0) add(anywhere(random), anywhere(random), anywhere(random));
                }
        m_folder.write("list.txt", list.str());
        PeakFileImportExport::writePeakFile_version_2(m_folder / "peaks.txt", peaks.get(), 2, 160, 160, 160,
                                                      -60.0, 60.0, 5e7, 0.0, 0.0, false);
        std::ostringstream nothing;
        for (int i = 0; i < 300; ++i)
            nothing << anywhere(random) << ' ' << anywhere(random) << ' ' << anywhere(random) << '\n';
        m_folder.write("noise.txt", nothing.str());
    }

    VrkResult cell(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "cell");
        return runVrk(arguments, m_folder / ".");
    }

    TemporaryFolder m_folder;
    int m_count = 0;
};

TEST_F(CellCommandTest, FindsTheCellOfPeakFileAndList) {
    const std::vector<std::vector<std::string>> cases = {
        {"peaks.txt", "-o", "cell.txt", "--json", "--log", "log.txt"},
        {"list.txt", "-o", "cell.txt", "--json", "--pixel-size", "5e7"},
        {"peaks.txt", "-o", "cell.txt", "--json", "--eps", "1", "--min-points", "10", "--max-length", "40"},
        {"peaks.txt", "-o", "cell.txt", "--json", "--clustering", "fsc"},
        {"peaks.txt", "-o", "cell.txt", "--json", "--clustering", "fsc", "--max-length", "40"},
        {"peaks.txt", "-o", "cell.txt", "--json", "--clustering", "ddsc"},
    };
    for (const auto& arguments : cases) {
        SCOPED_TRACE(arguments.back());
        const VrkResult run = cell(arguments);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        const auto json = nlohmann::json::parse(run.out);
        EXPECT_EQ(json["lattice"]["bravais"], "tI");
        EXPECT_NEAR(json["lattice"]["conventional"]["a"], 10.0, 0.1);
        EXPECT_NEAR(json["lattice"]["conventional"]["c"], 18.0, 0.2);
        EXPECT_NEAR(json["cell"]["volume"], 900.0, 15.0);
        EXPECT_EQ(json["reflections"]["found"], m_count);
        EXPECT_NEAR(json["reflections"]["fraction_indexed"], 0.78, 0.06);
        // A plain list does not tell what was recorded, so nobody knows which nodes are missing.
        EXPECT_EQ(json["confidence"]["level"], arguments[0] == "list.txt" ? "fair" : "high");
        const auto has = [&](const char* option) {
            return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
        };
        EXPECT_EQ(json["search"], has("--max-length") ? "parameters" : "automatic");
        EXPECT_EQ(json["parameters"]["clustering"], has("fsc") ? "fsc" : has("ddsc") ? "ddsc" : "dbscan");
        EXPECT_EQ(json["parameters"]["min_points"].is_null(), has("fsc"));
        if (has("--eps")) {
            EXPECT_EQ(json["parameters"]["min_points"], 10);
        }
        for (const double component : json["origin_px"])
            EXPECT_LT(std::abs(component), 0.2);

        UnitCell written;
        ASSERT_TRUE(CellFileImportExport::loadCellFile(m_folder / "cell.txt", &written, 5e7));
        const std::unique_ptr<UnitCell> direct(written.getReciprocalCell());
        EXPECT_NEAR(direct->getExactVolume(), json["cell"]["volume"], 0.1);
        EXPECT_TRUE(direct->isRightHanded());
    }
    EXPECT_NE(m_folder.read("log.txt").find("Clustering started..."), std::string::npos);
}

TEST_F(CellCommandTest, ReportsWhatTheCellRestsOn) {
    const std::vector<std::vector<std::string>> cases = {
        {}, {"--eps", "1", "--min-points", "10", "--max-length", "40"}, {"--clustering", "fsc"}};
    for (const auto& given : cases) {
        SCOPED_TRACE(given.size());
        std::vector<std::string> arguments = {"peaks.txt", "-o",         "cell.txt",     "--json",
                                              "--report",  "report.txt", "--debug-dump", "dump"};
        arguments.insert(arguments.end(), given.begin(), given.end());
        const VrkResult run = cell(arguments);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        const auto printed = nlohmann::json::parse(run.out);
        const auto json = nlohmann::json::parse(m_folder.read("report.json"));
        EXPECT_EQ(json["reflections"], m_count);
        EXPECT_EQ(json["symmetries"][0]["bravais"], "tI");
        EXPECT_EQ(json["parameters"]["max_length"], printed["parameters"]["max_length"]);
        EXPECT_EQ(json["reciprocal_vectors_px"], printed["reciprocal_vectors_px"]);
        EXPECT_EQ(json["displacements"]["all"]["indexed"], printed["reflections"]["indexed"]);
        EXPECT_TRUE(json["reduction"]["is_niggli_cell"]);
        EXPECT_EQ(json["clustering"].get<std::string>().substr(0, 3),
                  printed["parameters"]["clustering"] == "fsc" ? "FSC" : "DBS");
        EXPECT_GE(json["clusters"].size(), 8u);
        int onNodes = 0;
        for (const auto& cluster : json["clusters"])
            onNodes += cluster["distance"] < 1.0;
        EXPECT_GT(onNodes, 7);
        EXPECT_EQ(json["choice"]["candidates"][0]["verdict"], "a");
        EXPECT_NE(m_folder.read("report.txt").find("chosen as a: the shortest"), std::string::npos);

        // The header and one line a vector.
        const std::string dumped = m_folder.read("dump/DiffVectors.dat");
        EXPECT_EQ(std::count(dumped.begin(), dumped.end(), '\n'), json["difference_vectors"].get<long>() + 1);
        EXPECT_FALSE(m_folder.read("dump/BeginPoint.dat").empty());
        EXPECT_NE(m_folder.read("dump/CellFinding.plt").find("splot 'DiffVectors.dat'"), std::string::npos);
        std::filesystem::remove_all(m_folder / "dump");
    }
    // What a search without result saw is of most use.
    EXPECT_EQ(cell({"noise.txt", "-o", "x.txt", "--eps", "1", "--debug-dump", "dump"}).exitCode, 3);
    EXPECT_FALSE(m_folder.read("dump/DiffVectors.dat").empty());
}

TEST_F(CellCommandTest, TellsACellWithoutScale) {
    const VrkResult run = cell({"list.txt", "-o", "cell.txt"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("--pixel-size"), std::string::npos);
    EXPECT_NE(run.out.find("lattice             tI"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("reduced cell, A"), std::string::npos);
    const VrkResult json = cell({"list.txt", "-o", "cell.txt", "--json"});
    EXPECT_TRUE(nlohmann::json::parse(json.out)["cell"].is_null());
    // What reads the file can tell, too, that there is no scale.
    EXPECT_EQ(runVrk({"cell-info", "cell.txt"}, m_folder / ".").exitCode, 2);
}

TEST_F(CellCommandTest, SaysWhatIsWrongAndWritesNothing) {
    m_folder.write("far.txt", "0.01 0.02 0.03\n0.02 0.01 0.02\n0.03 0.03 0.01\n");
    m_folder.write("crowd.txt", [] {
        std::ostringstream text;
        for (int i = 0; i < 12000; ++i)
            text << i % 20 << ' ' << i / 20 % 25 << ' ' << i / 500 << '\n';
        return text.str();
    }());
    const struct {
        std::vector<std::string> arguments;
        int exitCode;
        std::string message;
    } cases[] = {
        {{"peaks.txt"}, 2, "output"},
        {{"none.txt", "-o", "x.txt"}, 1, "none.txt"},
        {{"list.txt", "-o", "list.txt"}, 2, "replace"},
        {{"list.txt", "-o", "x.txt", "--min-length", "30", "--max-length", "20"}, 2, "--max-length"},
        {{"noise.txt", "-o", "x.txt"}, 3, "no cell was found"},
        {{"noise.txt", "-o", "x.txt", "--eps", "1"}, 3, "smaller --min-points"},
        {{"list.txt", "-o", "x.txt", "--max-length", "3.1"}, 3, "larger --max-length"},
        {{"list.txt", "-o", "x.txt", "--eps", "1", "--angle-a", "3"},
         3,
         "smaller --min-points, --eps, --angle-a"},
        {{"far.txt", "-o", "x.txt"}, 3, "other units"},
        {{"crowd.txt", "-o", "x.txt", "--max-length", "1000"}, 2, "smaller --max-length"},
        {{"list.txt", "-o", "x.txt", "--clustering", "fsc", "--eps", "1"}, 2, "finds its radius itself"},
        {{"noise.txt", "-o", "x.txt", "--clustering", "fsc", "--max-length", "8"}, 3, "larger --max-length"},
        {{"list.txt", "-o", "x.txt", "--clustering", "kmeans"}, 2, "--clustering"},
        {{"list.txt", "-o", "x.txt", "--report", "./x.txt"}, 2, "the report would replace x.txt"},
        {{"list.txt", "-o", "x.txt", "--report", "x.json"}, 2, "another extension"},
        {{"list.txt", "-o", "x.txt", "--report", "none/x.txt"}, 1, "none"},
        {{"list.txt", "-o", "x.txt", "--debug-dump", "list.txt"}, 1, "list.txt"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.message);
        const VrkResult run = cell(one.arguments);
        EXPECT_EQ(run.exitCode, one.exitCode) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(one.message), std::string::npos) << run.err;
    }
    EXPECT_TRUE(m_folder.read("x.txt").empty());
}

TEST_F(CellCommandTest, WarnsOfACellThatExplainsLittle) {
    // A loose clustering of noise finds clusters somewhere.
    const VrkResult run =
        cell({"noise.txt", "-o", "x.txt", "--eps", "1.6", "--min-points", "3", "--pixel-size", "5e7"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("hardly more than chance"), std::string::npos) << run.err;
    EXPECT_NE(run.out.find("confidence          low"), std::string::npos) << run.out;
}

}  // namespace
