#include "app/RunVrk.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/UnitCell.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/ReflexVector.h"

namespace {

/// An I-centred tetragonal crystal, a = 10, c = 18 Angstrom, at 5e7 / m per voxel: as a list about 0, 0, 0
/// and as the peak file of a volume of 160 voxels along each axis. One reflection in five is wrong.
class CellCommandTest : public VrkTest {
protected:
    CellCommandTest() {
        std::mt19937 random(4);
        std::normal_distribution<double> noise(0.0, 0.3);
        std::uniform_real_distribution<double> anywhere(-70.0, 70.0);
        std::ostringstream list;
        ReflexVectorPtr peaks(new ReflexVector), bent(new ReflexVector);
        const auto add = [&](double x, double y, double z) {
            list << x << ' ' << y << ' ' << z << " 100 1 17\n";
            peaks->push_back(new Reflex(79.5 + x, 79.5 + y, 79.5 + z));
            // As a lens with an ellipse of 1.4 % shows them.
            bent->push_back(new Reflex(79.5 + 1.014 * x, 79.5 + 0.986 * y, 79.5 + 1.014 * z));
            ++m_count;
        };
        const double a = 20.0, c = 1e10 / (5e7 * 18.0);
        forEachIndex(7, 7, 7, [&](int h, int k, int l) {
            const double x = 0.8 * a * h - 0.6 * c * l, y = a * k, z = 0.6 * a * h + 0.8 * c * l;
            const double r = std::hypot(x, y, z);
            if ((h + k + l) % 2 != 0 || r < 5.0 || r > 70.0) return;
            add(x + noise(random), y + noise(random), z + noise(random));
            if (m_count % 5 == 0) add(anywhere(random), anywhere(random), anywhere(random));
        });
        folder.write("list.txt", list.str());
        for (const auto& [name, reflections] :
             {std::pair("peaks.txt", peaks.get()), {"bent.txt", bent.get()}})
            PeakFileImportExport::writePeakFile_version_2(folder / name, reflections, 2, 160, 160, 160, -60.0,
                                                          60.0, 5e7, 0.0, 0.0, false);
        std::ostringstream nothing;
        for (int i = 0; i < 300; ++i)
            nothing << anywhere(random) << ' ' << anywhere(random) << ' ' << anywhere(random) << '\n';
        folder.write("noise.txt", nothing.str());
    }

    int m_count = 0;
};

TEST_F(CellCommandTest, FindsTheCellOfPeakFileAndListAndReportsWhatItRestsOn) {
    double soFar = 0;
    for (const std::string line :
         {"peaks.txt --log log.txt", "list.txt --pixel-size 5e7",
          "peaks.txt --eps 1 --min-points 10 --max-length 40", "peaks.txt --clustering fsc",
          "peaks.txt --clustering fsc --max-length 40", "peaks.txt --clustering ddsc"}) {
        SCOPED_TRACE(line);
        const VrkResult run = vrk("cell -o cell.txt --json --report report.txt --debug-dump dump " + line);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(run.err, "");
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json["lattice"]["bravais"], "tI");
        EXPECT_NEAR(json["lattice"]["conventional"]["a"], 10.0, 0.1);
        EXPECT_NEAR(json["lattice"]["conventional"]["c"], 18.0, 0.2);
        EXPECT_NEAR(json["cell"]["volume"], 900.0, 15.0);
        EXPECT_EQ(json["reflections"]["found"], m_count);
        EXPECT_NEAR(json["reflections"]["fraction_indexed"], 0.78, 0.06);
        // The list has reflections all around, so that nobody knows how the crystal turned.
        EXPECT_EQ(json["confidence"]["level"], line.starts_with("list.txt") ? "low" : "high");
        const auto has = [&](const char* option) { return line.find(option) != std::string::npos; };
        EXPECT_EQ(json["search"], has("--max-length") ? "parameters" : "automatic");
        EXPECT_TRUE(json["merged"].is_null());
        EXPECT_EQ(json["parameters"]["clustering"], has("fsc") ? "fsc" : has("ddsc") ? "ddsc" : "dbscan");
        EXPECT_EQ(json["parameters"]["min_points"].is_null(), has("fsc"));
        for (const double component : json["origin_px"])
            EXPECT_LT(std::abs(component), 0.2);
        UnitCell written;
        ASSERT_TRUE(CellFileImportExport::loadCellFile(folder / "cell.txt", &written, 5e7));
        const std::unique_ptr<UnitCell> direct(written.getReciprocalCell());
        EXPECT_NEAR(direct->getExactVolume(), json["cell"]["volume"], 0.1);
        EXPECT_TRUE(direct->isRightHanded());

        const Json report = jsonFile("report.json");
        EXPECT_EQ(report["reflections"], m_count);
        EXPECT_TRUE(says(folder.read("report.txt"), "chosen as a: the shortest"));
        soFar += soFarOf(folder / "report.json");
        // The header and one line a vector.
        EXPECT_EQ(std::ranges::count(folder.read("dump/DiffVectors.dat"), '\n'),
                  report["difference_vectors"].get<long>() + 1);
        std::filesystem::remove_all(folder / "dump");
    }
    EXPECT_NEAR(soFar, 38044.1031, 1e-3);
    EXPECT_TRUE(says(folder.read("log.txt"), "Clustering started..."));
    // What a search without result saw is of most use.
    EXPECT_EQ(vrk("cell noise.txt -o x.txt --eps 1 --debug-dump dump").exitCode, 3);
    EXPECT_FALSE(folder.read("dump/DiffVectors.dat").empty());
}

TEST_F(CellCommandTest, TakesTheDistortionOfTheFramesOut) {
    const Json json = jsonOf("cell bent.txt -o cell.txt");
    EXPECT_EQ(json["lattice"]["bravais"], "tI");
    EXPECT_NEAR(json["lattice"]["conventional"]["a"], 10.0, 0.03);
    EXPECT_NEAR(json["lattice"]["conventional"]["c"], 18.0, 0.06);
    EXPECT_NEAR(json["distortion"]["ellipse"], 0.014, 0.002);
    EXPECT_NEAR(std::abs(json["distortion"]["azimuth_deg"].get<double>()), 0.0, 3.0);
}

TEST_F(CellCommandTest, PrintsTheParametersThatFindTheCellAgain) {
    for (const std::string given :
         {"peaks.txt", "list.txt --min-points 12 --eps 1.3333333 --angle-a 0.8 --full-space",
          "peaks.txt --clustering fsc --min-length 4 --merge none"}) {
        SCOPED_TRACE(given);
        const Json first = jsonOf("cell -o cell.txt " + given);
        const std::string command = first["command"], list = words(given)[0];
        for (const std::string& word : words(given))
            EXPECT_TRUE(word == list || says(command, word));
        const Json second = jsonOf("cell -o again.txt " + list + ' ' + command);
        EXPECT_EQ(folder.read("again.txt"), folder.read("cell.txt"));
        for (const char* key : {"cell", "lattice", "origin_px", "reflections", "parameters", "command"})
            EXPECT_EQ(second[key], first[key]) << key;
    }
}

TEST_F(CellCommandTest, MergesThePeaksOfFrames) {
    // Every node on three frames half a degree apart.
    const Json head = jsonOf("cell list.txt -o cell.txt");
    std::ostringstream frames;
    for (const std::string& line : folder.lines("list.txt")) {
        double x = 0, y = 0, z = 0;
        std::istringstream(line) >> x >> y >> z;
        for (const double turn : {-0.0087, 0.0, 0.0087})
            frames << x * std::cos(turn) + z * std::sin(turn) << ' ' << y << ' '
                   << z * std::cos(turn) - x * std::sin(turn) << " 10\n";
    }
    folder.write("frames.txt", frames.str());
    const Json json = jsonOf("cell frames.txt -o x.txt --pixel-size 5e7");
    EXPECT_EQ(json["lattice"]["bravais"], "tI");
    EXPECT_NEAR(json["cell"]["volume"], 900.0, 15.0);
    EXPECT_EQ(json["merged"]["peaks"], 3 * m_count);
    EXPECT_NEAR(json["reflections"]["found"].get<int>(), m_count, 0.05 * m_count);
    EXPECT_NEAR(json["reflections"]["fraction_indexed"], head["reflections"]["fraction_indexed"], 0.05);
    const VrkResult text = vrk("cell frames.txt -o x.txt --pixel-size 5e7 --merge 0.9");
    EXPECT_TRUE(says(text.out, {", within 0.9 voxels", " --merge 0.9\n"}));
}

TEST_F(CellCommandTest, TellsACellWithoutScale) {
    const VrkResult run = vrk("cell list.txt -o cell.txt");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(says(run.err, "--pixel-size"));
    EXPECT_TRUE(says(run.out, "lattice             tI"));
    EXPECT_FALSE(says(run.out, "reduced cell, A"));
    EXPECT_TRUE(jsonOf("cell list.txt -o cell.txt")["cell"].is_null());
    // What reads the file can tell, too, that there is no scale.
    EXPECT_EQ(vrk("cell-info cell.txt").exitCode, 2);
}

TEST_F(CellCommandTest, SaysWhatIsWrongAndWritesNothing) {
    folder.write("few.txt", "0.01 0.02 0.03\n0.02 0.01 0.02\n0.03 0.03 0.01\n");
    std::ostringstream far, plane, sheared;
    for (int i = 0; i < 60; ++i)
        far << 0.01 * (i % 5) << ' ' << 0.02 * (i / 5 % 4) << ' ' << 0.03 * (i / 20) << '\n';
    for (int i = 0; i < 400; ++i) {
        const int h = i % 20, k = i / 20;
        plane << 10 * h << ' ' << 9 * k << ' ' << 0.1 * (i * 7 % 5) << '\n';
        sheared << 10 * h << ' ' << 9 * k << ' ' << 3 * h + 4 * k << '\n';
    }
    folder.write("far.txt", far.str());
    folder.write("plane.txt", plane.str());
    folder.write("sheared.txt", sheared.str());
    const std::vector<RefusedLine> cases = {
        {"list.txt -o list.txt", 2, "replace"},
        {"list.txt -o x.txt --min-length 30 --max-length 20", 2, "--max-length"},
        {"noise.txt -o x.txt", 3, "no cell was found"},
        {"noise.txt -o x.txt --eps 1", 3, "smaller --min-points"},
        {"list.txt -o x.txt --max-length 3.1", 3, "larger --max-length"},
        {"list.txt -o x.txt --angle-a 56", 2, "up to 3; 56 looks like degrees, which are 0.977"},
        {"list.txt -o x.txt --merge 0", 2, "--merge is auto, none"},
        {"list.txt -o x.txt --pixel-size 0.005", 2, "1/Angstrom per pixel, which is --pixel-size 5e+07"},
        {"few.txt -o x.txt", 3, "3 reflections are too few"},
        {"far.txt -o x.txt", 3, "other units"},
        {"plane.txt -o x.txt", 3, "in one plane"},
        {"sheared.txt -o x.txt", 3, "in one plane"},
        {"list.txt -o x.txt --clustering fsc --eps 1", 2, "finds its radius itself"},
        {"noise.txt -o x.txt --clustering fsc --max-length 8", 3, "larger --max-length"},
        {"list.txt -o x.txt --clustering kmeans", 2, "--clustering"},
        {"list.txt -o x.txt --report ./x.txt", 2, "the report would replace x.txt"},
        {"list.txt -o x.txt --report x.json", 2, "another extension"},
        {"list.txt -o x.txt --report none/x.txt", 1, "none"},
        {"list.txt -o x.txt --debug-dump list.txt", 1, "list.txt"},
    };
    expectRefused(cases, folder / ".", "cell ");
    EXPECT_TRUE(folder.read("x.txt").empty());
}

}  // namespace
