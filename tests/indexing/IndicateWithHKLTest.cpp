#include "indexing/IndicateWithHKL.h"

#include "reflections/ReflexOnGrid.h"
#include "reflections/TestVolume.h"
#include "reflections/VolumeMath.h"
#include "support/SimulatedReflections.h"
#include "support/SoFar.h"

namespace {

namespace fs = std::filesystem;

const Mat3 kBasis = {{{11.0, 0.5, -1.0}, {-0.7, 13.0, 2.0}, {1.5, -3.0, 17.0}}};

class IndicateWithHKLTest : public testing::Test {
protected:
    void add(double x, double y, double z) { m_list->push_back(new Reflex(x, y, z)); }
    void addNode(int h, int k, int l, Vec3 displacement = {}) {
        const Vec3 node = nodeOf(kBasis, h, k, l);
        add(m_origin[0] + node[0] + displacement[0], m_origin[1] + node[1] + displacement[1],
            m_origin[2] + node[2] + displacement[2]);
    }
    int indicate(UnitCell* cell, double tolerance, int mode = 2) {
        return IndicateWithHKL::indicate(nullptr, cell, m_list.get(), m_origin, mode, tolerance, m_result,
                                         &m_out[0], &m_out[1], &m_out[2], &m_out[3], &m_out[4], &m_out[5],
                                         &m_out[6], &m_out[7]);
    }

    ReflexVectorPtr m_list{new ReflexVector};
    double m_origin[3] = {100.0, 120.5, 80.0};
    double m_result[IndicateWithHKL::kResultSize];
    std::vector<double> m_out[8];
};

TEST_F(IndicateWithHKLTest, TakesTheNearestNodeOrNone) {
    UnitCell cell = reciprocalCell(kBasis);
    RecordingLogObserver log;
    addNode(2, -3, 4);
    addNode(-5, 0, 1, {0.3, -0.4, 0.0});
    addNode(1, 1, 1, {4.0, 0.0, 3.0});
    EXPECT_EQ(indicate(&cell, 0.2), 2);
    const std::array<std::array<int, 3>, 2> nodes = {{{2, -3, 4}, {-5, 0, 1}}};
    for (std::size_t i = 0; i < 2; ++i)
        EXPECT_EQ((std::array{(*m_list)[i]->getH(), (*m_list)[i]->getK(), (*m_list)[i]->getL()}), nodes[i]);
    EXPECT_FALSE((*m_list)[2]->isIndicated());

    // Displacements and their parts along x, y and z: of what was indexed, and of what was not.
    const std::vector<double> displacements[8] = {{0, 0.5}, {0, 0.3}, {0, 0.4}, {0, 0}, {5}, {4}, {0}, {3}};
    const double expected[] = {0.25, 0.15, 0.2, 0.0, std::sqrt(0.125), std::sqrt(0.045), std::sqrt(0.08),
                               0.0};
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_NEAR(m_result[i], expected[i], 1e-12) << i;
        ASSERT_EQ(m_out[i].size(), displacements[i].size());
        for (std::size_t n = 0; n < m_out[i].size(); ++n)
            EXPECT_NEAR(m_out[i][n], displacements[i][n], 1e-12) << i;
    }
    // Means over all three: (0 + 0.5 + 5) / 3 and so on.
    for (const char* line :
         {"Delta_Z = 1.83", "Delta_h = 1.43", "Delta_k = 0.13", "Delta_l = 1", "Delta_Z2 = 8.42",
          "Delta_h2 = 5.36", "Delta_k2 = 0.05", "Delta_l2 = 3", "2 of 3 reflections could be indicated."})
        EXPECT_EQ(log.count(line, VRK::Normal), 1) << line;
}

TEST_F(IndicateWithHKLTest, ClearsTheIndicesOfAnEarlierRun) {
    UnitCell good = reciprocalCell(kBasis);
    addNode(2, -3, 4);
    ASSERT_EQ(indicate(&good, 0.1), 1);
    UnitCell worse = reciprocalCell({{{10.3, 0.0, 0.0}, {0.0, 12.1, 0.0}, {0.0, 0.0, 15.9}}});
    EXPECT_EQ(indicate(&worse, 0.01), 0);
    EXPECT_EQ(std::count(m_result, m_result + IndicateWithHKL::kResultSize, 0.0),
              IndicateWithHKL::kResultSize);
    EXPECT_FALSE((*m_list)[0]->isIndicated());
    EXPECT_TRUE(m_out[0].empty());

    ASSERT_EQ(indicate(&good, 0.1), 1);
    UnitCell flat = reciprocalCell({{{1, 2, 3}, {2, 4, 6}, {0, 0, 1}}});
    EXPECT_EQ(indicate(&flat, 0.1), -1);
    EXPECT_FALSE((*m_list)[0]->isIndicated());
}

TEST_F(IndicateWithHKLTest, AnswersMissingAndImpossibleInput) {
    UnitCell cell = reciprocalCell(kBasis);
    const auto run = [&](UnitCell* c, ReflexVector* list, double* origin) {
        return IndicateWithHKL::indicate(nullptr, c, list, origin, 2, 0.2, nullptr, nullptr, nullptr, nullptr,
                                         nullptr, nullptr, nullptr, nullptr, nullptr);
    };
    RecordingLogObserver log;
    EXPECT_EQ(run(nullptr, nullptr, m_origin), -1);
    EXPECT_TRUE(log.has("Error during indication. No reflections available", VRK::Error));
    EXPECT_FALSE(log.has("No cell available", VRK::Error));
    EXPECT_EQ(run(nullptr, m_list.get(), m_origin), -1);
    EXPECT_TRUE(log.has("Error during indication. No cell available", VRK::Error));
    EXPECT_EQ(run(&cell, m_list.get(), nullptr), -1);
    EXPECT_EQ(run(&cell, m_list.get(), m_origin), 0);

    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    constexpr double infinity = std::numeric_limits<double>::infinity();
    add(nan, 0.0, 0.0);
    add(0.0, infinity, 0.0);
    add(1e300, 0.0, 0.0);
    addNode(2147483647, 0, 0);  // the number that stands for "no index"
    m_list->push_back(nullptr);
    addNode(1, 0, 0);
    EXPECT_EQ(run(&cell, m_list.get(), m_origin), 1);
    EXPECT_EQ(indicate(&cell, nan), 0);
}

TEST_F(IndicateWithHKLTest, WarnsOfCellsThatItUsesAsTheyAreOrConverts) {
    addNode(1, 2, 3);
    RecordingLogObserver log;
    UnitCell left = reciprocalCell({kBasis[1], kBasis[0], kBasis[2]});
    EXPECT_EQ(indicate(&left, 0.1), 1);
    EXPECT_EQ((*m_list)[0]->getH(), 2);
    EXPECT_TRUE(log.has("The cell is not right-handed.", VRK::Warning));
    UnitCell centred = reciprocalCell(kBasis);
    centred.setPrimitiv(false);
    indicate(&centred, 0.1);
    EXPECT_TRUE(
        log.has("The cell is not primitiv. They will be converted into a primitiv cell", VRK::Warning));
}

TEST_F(IndicateWithHKLTest, TellsDisplacementsFoldedAndTakesTheCentreThatItIsTold) {
    UnitCell sheared = reciprocalCell({{{10, 0, 0}, {9, 12, 0}, {0, 0, 10}}});
    add(m_origin[0] + 8.55, m_origin[1] + 5.4, m_origin[2]);  // 0.45 along both
    RecordingLogObserver log;
    EXPECT_EQ(indicate(&sheared, 0.5), 1);
    EXPECT_EQ(log.count("Delta_h = 1.45", VRK::Normal), 1);
    EXPECT_EQ(log.count("Delta_k = 5.4", VRK::Normal), 1);
    EXPECT_NEAR(m_out[1][0], 8.55, 1e-9);
    EXPECT_EQ(log.count("", VRK::Warning), 0);
    const std::unique_ptr<UnitCell> direct(sheared.getReciprocalCell());
    indicate(direct.get(), 0.5);
    EXPECT_TRUE(log.has("The cell is a direct-space cell", VRK::Warning));

    // Three voxels in a row, the first of them the brightest: the brightest, the mean, the weighted mean.
    VolumeMath::setZeroCompareValue(1);
    const auto volume = makeVolume({9, 9, 9});
    for (const unsigned x : {2U, 3U, 4U})
        setVoxel(*volume, x, 5, 6, x == 2 ? 200 : 100);
    m_list->push_back(new ReflexOnGrid(2, 5, 6, volume.get(), false, nullptr));
    UnitCell cubic = reciprocalCell({{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}});
    std::fill_n(m_origin, 3, 0.0);
    for (const auto& [mode, x] : {std::pair{1, 2.0}, {2, 3.0}, {3, 2.75}, {0, 3.0}, {4, 3.0}}) {
        indicate(&cubic, 0.5, mode);
        EXPECT_NEAR(m_out[1].back(), std::abs(x - std::round(x)), 1e-12) << mode;
        EXPECT_EQ(m_list->back()->getH(), std::lround(x)) << mode;
        EXPECT_EQ(m_list->back()->getL(), 6) << mode;
    }
}

TEST_F(IndicateWithHKLTest, PlotsRender) {
    if (std::system("gnuplot --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "no gnuplot";
    // Some indexed ones far off, an origin, and what has no place.
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0.0, 0.4);
    addNode(0, 0, 0, {1.0, 1.0, 1.0});
    m_list->push_back(nullptr);
    add(std::nan(""), 0.0, 0.0);
    forEachNode(kBasis, 90.0, [&](int h, int k, int l, const Vec3&) {
        const double far = random() % 20 == 0 ? 8.0 : 1.0;
        addNode(h, k, l, {far * noise(random), far * noise(random), far * noise(random)});
        m_list->back()->setIntensity(std::exp(2.0 + 3.0 * noise(random)));
    });
    UnitCell cell = reciprocalCell(kBasis);
    ASSERT_GT(indicate(&cell, 0.2), 500);
    const TemporaryFolder own;
    const fs::path folder = own / "indexing 'plots'";
    fs::create_directory(folder);
    EXPECT_TRUE(IndicateWithHKL::generateEvaluationPlot(m_list.get(), folder.string()));
    EXPECT_TRUE(IndicateWithHKL::generateHKLplot(m_list.get(), folder.string()));
    for (const char* name : {"indicateEvaluation", "hklPlot", "hPlot", "kPlot", "lPlot"})
        EXPECT_TRUE(fs::exists(folder / (std::string(name) + ".png"))) << name;
    // The lines of the scripts and of what they plot, and a sum of the numbers so far.
    for (const auto& [plot, lines, expected] : std::vector<std::tuple<std::string, std::size_t, double>>{
             {"hklPlot", 449, 9894.74156},
             {"hPlot", 1214, 1435.50037},
             {"kPlot", 1210, 1364.18977},
             {"lPlot", 1208, 1328.24373},
             {"indicateEvaluation", 1432, 92328.8223}}) {
        std::vector<std::string> text = own.lines("indexing 'plots'/" + plot + ".plt");
        std::size_t count = text.size();
        SoFar soFar;
        for (int n = 1; !text.empty(); ++n) {
            text = own.lines("indexing 'plots'/" + plot + "_" + std::to_string(n) + ".dat");
            count += text.size();
            for (std::size_t i = 1; i < text.size(); ++i) {
                std::istringstream numbers(text[i]);
                for (double number = 0; numbers >> number;)
                    soFar.add(number);
            }
        }
        EXPECT_EQ(count, lines) << plot;
        EXPECT_NEAR(soFar.sum(), expected, 2e-6 * expected) << plot;
    }
    for (const auto& [plot, axes] : std::vector<std::pair<std::string, std::string>>{
             {"hklPlot", "xlabel 'h'; set ylabel 'k'"},
             {"kPlot", "set xrange [-7.000000:7.000000]"},
             {"indicateEvaluation", "(voxels)'; set ylabel 'indexed (%)'; set yrange [0:105]"}})
        EXPECT_NE(own.read("indexing 'plots'/" + plot + ".plt").find(axes), std::string::npos) << axes;
    fs::create_directories(own / "blocked/hPlot.plt");
    EXPECT_FALSE(IndicateWithHKL::generateHKLplot(m_list.get(), own / "blocked")) << "one of the plots fails";
    RecordingLogObserver log;
    for (const int index : {-1, 2, 3})
        EXPECT_EQ(IndicateWithHKL::generatePlotOfOne(m_list.get(), index, folder.string()), index == 2);
    EXPECT_EQ(log.count("There is no index number", VRK::Error), 2);
    m_list->destroyElements();
    EXPECT_FALSE(IndicateWithHKL::generateEvaluationPlot(m_list.get(), folder.string()));
    EXPECT_FALSE(IndicateWithHKL::generatePlotOfOne(nullptr, 0, folder.string()));
    EXPECT_EQ(log.count("Error during plotting", VRK::Error), 4);
}

}  // namespace
