#include "cellfinding/CalculateCellIOstuff.h"

#include "cellfinding/CalculateCellAlgorithm.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

using Row = std::vector<double>;

/// Reflections on a grid, those of a row far closer than the rows, so that clusters along it merge.
class CalculateCellIOstuffTest : public testing::Test {
protected:
    CalculateCellIOstuffTest() {
        for (int i = 0; i < 5; ++i)
            for (int j = 0; j < 5; ++j)
                for (int k = 0; k < 12; ++k)
                    m_reflections->push_back(new Reflex(11.0 * i, 12.0 * j, 1.5 * k + 0.01 * i * j));
        m_reflections->push_back(new Reflex(5.0, 6.0, 7.7));
        m_parameter.setMaxLength(20.0);
        m_parameter.setDBSCANEps(2.0);
        CalculateCellIOstuff::setFolder(m_folder / ".");
    }
    ~CalculateCellIOstuffTest() override {
        CalculateCellIOstuff::setWriteData(false);
        CalculateCellIOstuff::setWriteLines(false);
        CalculateCellIOstuff::setFolder("");
        clear();
    }

    void clear() {
        for (auto* cluster : m_clusters)
            delete cluster;
        for (auto* vector : m_noise)
            delete vector;
        m_clusters.clear();
        m_noise.clear();
    }
    double runSteps() {
        clear();
        m_grid.reset(m_algorithm.StepTwo_CalcDiffVectors(&m_parameter, m_reflections.get(), nullptr));
        return m_algorithm.StepThree_Clustering(&m_parameter, m_grid.get(), &m_clusters, &m_noise);
    }
    bool exists(const char* name) const { return std::ifstream(m_folder / name).good(); }
    std::vector<Row> rowsOf(const char* name) const {
        std::istringstream file(m_folder.read(name));
        std::vector<Row> rows;
        for (std::string line; std::getline(file, line);) {
            std::istringstream text(line);
            Row row;
            for (double x = 0.0; text >> x;)
                row.push_back(x);
            if (!row.empty()) rows.push_back(row);
        }
        return rows;
    }

    TemporaryFolder m_folder;
    ReflexVectorPtr m_reflections{new ReflexVector};
    Parameter m_parameter;
    CalculateCellAlgorithm m_algorithm;
    std::unique_ptr<CubicGrid<ClusterPoint<double>>> m_grid;
    std::vector<Cluster<Point<double>>*> m_clusters;
    std::vector<ClusterPoint<double>*> m_noise;
};

TEST_F(CalculateCellIOstuffTest, StepsWriteWhatTheSwitchesAskFor) {
    const struct { bool data, lines; } cases[] = {{false, false}, {true, false}, {false, true}};
    for (const auto& one : cases) {
        TemporaryFolder folder;
        CalculateCellIOstuff::setFolder(folder / ".");
        CalculateCellIOstuff::setWriteData(one.data);
        CalculateCellIOstuff::setWriteLines(one.lines);
        ASSERT_GE(runSteps(), 0.0);
        for (const char* name :
             {"DiffVectors.dat", "DiffVectorsWithoutNoise.dat", "Clusters.dat", "ClusterCentres.dat"})
            EXPECT_EQ(std::ifstream(folder / name).good(), one.data) << name;
        for (const char* name : {"OnLine.dat", "OnLineNotProjected.dat", "BeginPoint.dat"})
            EXPECT_EQ(std::ifstream(folder / name).good(), one.lines) << name;
    }
}

TEST_F(CalculateCellIOstuffTest, FilesHoldVectorsClustersAndLines) {
    CalculateCellIOstuff::setWriteData(true);
    CalculateCellIOstuff::setWriteLines(true);
    ASSERT_GE(runSteps(), 0.0);
    ASSERT_GT(m_clusters.size(), 2u);
    ASSERT_FALSE(m_noise.empty());
    const auto all = static_cast<std::size_t>(m_grid->getNumberOfPoints());
    EXPECT_EQ(rowsOf("DiffVectors.dat").size(), all);
    EXPECT_EQ(rowsOf("DiffVectorsWithoutNoise.dat").size(), all - m_noise.size());
    const std::vector<Row> centres = rowsOf("ClusterCentres.dat");
    ASSERT_EQ(centres.size(), m_clusters.size());
    EXPECT_NEAR(centres[1][2], m_clusters[1]->getCenterOfGrafity(2), 1e-4);
    EXPECT_EQ(centres[1][3], 2.0);
    EXPECT_EQ(centres[1][4], m_clusters[1]->getNumberOfPoints());
    for (const Row& row : rowsOf("DiffVectorsWithoutNoise.dat"))
        EXPECT_GT(row[3], 0.0);

    const std::vector<Row> feet = rowsOf("OnLine.dat");
    const std::vector<Row> points = rowsOf("OnLineNotProjected.dat");
    const std::vector<Row> begins = rowsOf("BeginPoint.dat");
    ASSERT_EQ(feet.size(), points.size());
    ASSERT_GT(begins.size(), 1u);
    std::size_t line = 0;
    std::vector<double> ends(begins.size(), 0.0);
    for (std::size_t i = 0; i < feet.size(); ++i) {
        while (begins[line][6] != feet[i][3])
            ASSERT_LT(++line, begins.size());
        const Row& begin = begins[line];
        double along = 0.0, square = 0.0, between = 0.0, across = 0.0;
        for (std::size_t k = 0; k < 3; ++k) {
            along += (feet[i][k] - begin[k]) * begin[k + 3];
            square += begin[k + 3] * begin[k + 3];
            between += (points[i][k] - feet[i][k]) * begin[k + 3];
        }
        for (std::size_t k = 0; k < 3; ++k)
            across = std::max(across, std::abs(feet[i][k] - begin[k] - along / square * begin[k + 3]));
        EXPECT_LT(across, 1e-3);
        EXPECT_LT(std::abs(between), 1e-2);
        EXPECT_GT(along / square, -1e-3);
        EXPECT_LT(along / square, 1.001);
        ends[line] = std::max(ends[line], along / square);
    }
    for (const double end : ends)
        EXPECT_NEAR(end, 1.0, 1e-3);

    ASSERT_TRUE(CalculateCellIOstuff::writeGnuplotScript());
    const std::string script = m_folder.read("CellFinding.plt");
    for (const char* name :
         {"DiffVectors.dat", "DiffVectorsWithoutNoise.dat", "ClusterCentres.dat", "BeginPoint.dat"})
        EXPECT_NE(script.find(std::string("'") + name + "'"), std::string::npos) << name;
}

TEST_F(CalculateCellIOstuffTest, WritesAtMostTheFirstClusters) {
    ASSERT_GE(runSteps(), 0.0);
    const auto last = [&] { return rowsOf("Clusters.dat").back()[3]; };
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&m_clusters, 2));
    EXPECT_EQ(last(), 2.0);
    std::vector<Cluster<Point<double>>*> many;
    Point<double> point(Row{1, 2, 3}.data(), 3);
    std::vector<std::unique_ptr<Cluster<Point<double>>>> owned;
    for (int i = 1; i <= 520; ++i) {
        owned.push_back(std::make_unique<Cluster<Point<double>>>(&point, i));
        many.push_back(owned.back().get());
    }
    many[3] = nullptr;
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&many));
    EXPECT_EQ(last(), 500.0);
    EXPECT_EQ(rowsOf("ClusterCentres.dat").size(), 499u);
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&many, -1));
    EXPECT_TRUE(rowsOf("Clusters.dat").empty());
}

TEST_F(CalculateCellIOstuffTest, SaysWhatCannotBeWrittenAndGoesOn) {
    CalculateCellIOstuff::setWriteData(true);
    CalculateCellIOstuff::setWriteLines(true);
    CalculateCellIOstuff::setFolder(m_folder / "none");
    RecordingLogObserver log;
    EXPECT_GE(runSteps(), 0.0);
    EXPECT_EQ(log.count("Cannot write", VRK::Error), 7);
    EXPECT_TRUE(log.has("none/DiffVectors.dat. Check that the folder exists", VRK::Error));
    EXPECT_FALSE(CalculateCellIOstuff::writeGnuplotScript());
    EXPECT_FALSE(CalculateCellIOstuff::writeDiffData(nullptr));
    EXPECT_FALSE(CalculateCellIOstuff::writeClusters(nullptr));
    EXPECT_FALSE(CalculateCellIOstuff::writeLines(nullptr));
}

}  // namespace
