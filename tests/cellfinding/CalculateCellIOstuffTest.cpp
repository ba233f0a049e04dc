#include "cellfinding/CalculateCellIOstuff.h"

#include <Eigen/Core>

#include "Clustered.h"
#include "cellfinding/CalculateCellAlgorithm.h"
#include "reflections/ReflexVector.h"
#include "support/Testing.h"

namespace {

using Row = std::vector<double>;

/// Reflections on a grid, those of a row far closer than the rows, so that clusters along it merge.
class CalculateCellIOstuffTest : public testing::Test,
                                 protected testing_support::Clustered<ClusterPoint<double>> {
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
    }
    double runSteps() {
        clear();
        grid.reset(m_algorithm.StepTwo_CalcDiffVectors(&m_parameter, m_reflections.get(), nullptr));
        return m_algorithm.StepThree_Clustering(&m_parameter, grid.get(), &clusters, &noise);
    }
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
};

TEST_F(CalculateCellIOstuffTest, StepsWriteWhatTheSwitchesAskFor) {
    for (const auto& [data, lines] : {std::pair{false, false}, {true, false}, {false, true}}) {
        TemporaryFolder folder;
        CalculateCellIOstuff::setFolder(folder / ".");
        CalculateCellIOstuff::setWriteData(data);
        CalculateCellIOstuff::setWriteLines(lines);
        ASSERT_GE(runSteps(), 0.0);
        for (const char* name :
             {"DiffVectors.dat", "DiffVectorsWithoutNoise.dat", "Clusters.dat", "ClusterCentres.dat"})
            EXPECT_EQ(std::filesystem::exists(folder / name), data) << name;
        for (const char* name : {"OnLine.dat", "OnLineNotProjected.dat", "BeginPoint.dat"})
            EXPECT_EQ(std::filesystem::exists(folder / name), lines) << name;
    }
}

TEST_F(CalculateCellIOstuffTest, FilesHoldVectorsClustersAndLines) {
    CalculateCellIOstuff::setWriteData(true);
    CalculateCellIOstuff::setWriteLines(true);
    ASSERT_GE(runSteps(), 0.0);
    ASSERT_GT(clusters.size(), 2u);
    ASSERT_FALSE(noise.empty());
    const auto all = static_cast<std::size_t>(grid->getNumberOfPoints());
    EXPECT_EQ(rowsOf("DiffVectors.dat").size(), all);
    EXPECT_EQ(rowsOf("DiffVectorsWithoutNoise.dat").size(), all - noise.size());
    const std::vector<Row> centres = rowsOf("ClusterCentres.dat");
    ASSERT_EQ(centres.size(), clusters.size());
    EXPECT_NEAR(centres[1][2], clusters[1]->getCenterOfGrafity(2), 1e-4);
    EXPECT_EQ(centres[1][3], 2.0);
    EXPECT_EQ(centres[1][4], clusters[1]->getNumberOfPoints());
    for (const Row& row : rowsOf("DiffVectorsWithoutNoise.dat"))
        EXPECT_GT(row[3], 0.0);

    const std::vector<Row> feet = rowsOf("OnLine.dat");
    const std::vector<Row> places = rowsOf("OnLineNotProjected.dat");
    const std::vector<Row> begins = rowsOf("BeginPoint.dat");
    ASSERT_EQ(feet.size(), places.size());
    ASSERT_GT(begins.size(), 1u);
    const auto at = [](const Row& row, std::size_t column = 0) {
        return Eigen::Vector3d(row.data() + column);
    };
    std::size_t line = 0;
    std::vector<double> ends(begins.size(), 0.0);
    for (std::size_t i = 0; i < feet.size(); ++i) {
        while (begins[line][6] != feet[i][3])
            ASSERT_LT(++line, begins.size());
        const Eigen::Vector3d direction = at(begins[line], 3), foot = at(feet[i]) - at(begins[line]);
        const double along = foot.dot(direction) / direction.squaredNorm();
        EXPECT_LT((foot - along * direction).cwiseAbs().maxCoeff(), 1e-3);
        EXPECT_LT(std::abs((at(places[i]) - at(feet[i])).dot(direction)), 1e-2);
        EXPECT_GT(along, -1e-3);
        ends[line] = std::max(ends[line], along);
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
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&clusters, 2));
    EXPECT_EQ(last(), 2.0);
    Clustered many;
    Point<double> point(Row{1, 2, 3}.data(), 3);
    for (int i = 1; i <= 520; ++i)
        many.clusters.push_back(i == 4 ? nullptr : new Cluster<Point<double>>(&point, i));
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&many.clusters));
    EXPECT_EQ(last(), 500.0);
    EXPECT_EQ(rowsOf("ClusterCentres.dat").size(), 499u);
    EXPECT_TRUE(CalculateCellIOstuff::writeClusters(&many.clusters, -1));
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
