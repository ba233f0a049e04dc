#include "cellfinding/CellEvaluation.h"

#include "Clustered.h"
#include "crystallography/NiggliReduction.h"
#include "support/SimulatedReflections.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using Vector = CellEvaluation::Vector;
using Shape = CellEvaluation::Shape;
using enum BaseVectorVerdict;

/// A reciprocal cell of 10 x 12 x 15 voxels and hand-made results of its finding.
class CellEvaluationTest : public testing::Test, protected testing_support::Clustered<ClusterPoint<double>> {
protected:
    CellEvaluationTest() {
        addCluster({0, 12, 0.3}, {0.3, 0.3, 0.3});  // not in the order of lengths
        addCluster({10, 0, 0}, {0.2, 2.0, 0.1});
        addCluster({-10.1, 0.5, 0}, {0.3, 0.3, 0.3});
        addCluster({10, 3, 0}, {1.0, 1.0, 0.01});
        addCluster({10, 12, 0.6}, {0.3, 0.3, 0.3});
        addCluster({1, -12.2, 0.3}, {0.3, 0.3, 0.3});
        addCluster({0, 12, 6}, {0.3, 0.3, 0.3});
        addCluster({0, 0, 15}, {0.3, 0.3, 0.3});
        addCluster({10, 0, 15}, {0.3, 0.3, 0.3});
        clusters.push_back(nullptr);
        for (int i = 0; i < 2; ++i)
            add({0, 0, 0});
        makeGridAround(3);
        m_input = {"by hand", &m_parameter, m_reflections.get(), grid.get(), &clusters, &noise,
                   &m_cell,   2e8,          {100, 101, 102},     2.0};
    }

    /// Six points with these standard deviations along the axes.
    void addCluster(const Vector& centre, const Vector& sigma) {
        std::vector<Point<double>> six;
        for (std::size_t axis = 0; axis < 3; ++axis)
            for (const double sign : {-1.0, 1.0}) {
                Vector place = centre;
                place[axis] += sign * sigma[axis] * std::sqrt(3.0);
                six.emplace_back(place.data(), static_cast<unsigned char>(3));
            }
        std::vector<Point<double>*> pointers;
        for (auto& point : six)
            pointers.push_back(&point);
        clusters.push_back(new Cluster<Point<double>>(&pointers, static_cast<int>(clusters.size()) + 1));
    }
    CellEvaluation evaluate() const {
        CellEvaluation evaluation;
        EXPECT_TRUE(CellEvaluation::evaluate(m_input, &evaluation));
        return evaluation;
    }

    Parameter m_parameter;
    ReflexVectorPtr m_reflections{new ReflexVector};
    UnitCell m_cell = reciprocalCell({{{10, 0, 0}, {0, 12, 0}, {10, 0, 15}}});
    CellEvaluation::Input m_input;
};

TEST_F(CellEvaluationTest, SaysWhyClustersWereChosenOrPassedOver) {
    const CellEvaluation e = evaluate();
    EXPECT_TRUE(e.hasChoice);
    EXPECT_EQ(e.choiceIndex, 1);
    std::vector<std::tuple<int, BaseVectorVerdict, double>> found;
    for (const auto& candidate : e.candidates)
        found.emplace_back(candidate.label, candidate.verdict, std::round(10 * candidate.value) / 10);
    EXPECT_EQ(found, (decltype(found){{2, A, 0.0},
                                      {3, OppositeToA, 177.2},
                                      {4, NearA, 16.7},
                                      {1, B, 0.0},
                                      {6, OppositeToB, 174.5},
                                      {7, NearB, 25.1},
                                      {8, C, 0.0},
                                      {5, LongerThanNeeded, 0.0},
                                      {9, LongerThanNeeded, 0.0}}));
    for (const auto& [a, c, index] : {std::tuple{10.0, 7.5, 2}, {7.0, 15.0, 0}}) {
        const UnitCell other = reciprocalCell({{{a, 0, 0}, {0, 12, 0}, {0, 0, c}}});
        m_input.cell = &other;
        EXPECT_EQ(evaluate().choiceIndex, index);
    }
    m_input.cell = &m_cell;
    // A plane: everything else is judged.
    const std::vector<Cluster<Point<double>>*> three = {clusters[0], clusters[1], clusters[4]};
    m_input.clusters = &three;
    m_parameter.setAngleA(0.5);
    m_parameter.setAngleB(0.5);
    const CellEvaluation plane = evaluate();
    EXPECT_FALSE(plane.hasChoice);
    EXPECT_EQ(plane.candidates[2].verdict, InPlane);
    EXPECT_NEAR(plane.candidates[2].value, 0.3 * 120 / (10 * 12 * 15.6), 0.02);
    EXPECT_NE(plane.toText().find("there are no three"), std::string::npos);
}

TEST_F(CellEvaluationTest, DescribesClustersByShapeAndNode) {
    const CellEvaluation e = evaluate();
    ASSERT_EQ(e.clusters.size(), 9u);
    EXPECT_EQ(e.clusters[0].shape, Shape::Compact);
    EXPECT_EQ(e.clusters[1].shape, Shape::Rod);
    EXPECT_EQ(e.clusters[3].shape, Shape::Disc);
    EXPECT_EQ(e.clusters[1].points, 6);
    for (std::size_t k = 0; k < 3; ++k) {
        EXPECT_NEAR(e.clusters[1].spread[k], (Vector{2.0, 0.2, 0.1})[k], 1e-9);
        EXPECT_NEAR(std::abs(e.clusters[1].axis[k]), k == 1 ? 1.0 : 0.0, 1e-9);
    }
    // 0, 0, 15 is c* - a*.
    EXPECT_EQ(e.clusters[7].hkl, (std::array<int, 3>{-1, 0, 1}));
    EXPECT_NEAR(e.clusters[7].distance, 0.0, 1e-9);
    EXPECT_NEAR(e.clusters[5].distance, std::hypot(1.0, 0.2, 0.3), 1e-9);
}

TEST_F(CellEvaluationTest, FollowsTheReductionWithoutNarratingIt) {
    std::ostringstream narration;
    NiggliReduction::setNarration(&narration);
    const CellEvaluation e = evaluate();
    EXPECT_EQ(NiggliReduction::getNarration(), &narration);
    NiggliReduction::setNarration(&std::cout);
    EXPECT_EQ(narration.str(), "");
    EXPECT_TRUE(e.isNiggli);
    ASSERT_GT(e.niggliSteps.size(), 1u);
    // 1e10 / 2e8 = 50 over the edges in voxels; a, b, c by length.
    const double squares[6] = {2500.0 / 225, 2500.0 / 144, 2500.0 / 100, 0, 0, 0};
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(e.niggliSteps.back()[i], squares[i], 1e-3);
    EXPECT_NEAR(e.reducedCell.c, 5.0, 1e-6);
    ASSERT_FALSE(e.symmetries.empty());
    EXPECT_EQ(e.symmetries.front().bravaisType, LATTICE::oP);

    m_input.pixelSize = 0.0;
    const CellEvaluation unscaled = evaluate();
    EXPECT_NEAR(unscaled.reducedCell.c / unscaled.reducedCell.a, 1.5, 1e-6);
    EXPECT_EQ(unscaled.all.resolution, 0.0);
    EXPECT_NE(unscaled.toText().find("no scale"), std::string::npos);
}

TEST_F(CellEvaluationTest, MeasuresDisplacementsInShells) {
    // Everything is 1 % too far out and shifted by 0.2 in z; every fifth reflection is none.
    int count = 0;
    forEachIndex(6, 6, 6, [&](int h, int k, int l) {
        const double off = ++count % 5 == 0 ? 5.0 : 0.0;
        m_reflections->push_back(new Reflex(100 + 1.01 * (10.0 * h + 10.0 * l) + off,
                                            101 + 1.01 * 12 * k + off, 102 + 1.01 * 15 * l + 0.2));
    });
    m_reflections->push_back(nullptr);
    m_reflections->push_back(new Reflex(std::nan(""), 0, 0));
    const CellEvaluation e = evaluate();
    EXPECT_EQ(e.reflections, count);
    EXPECT_EQ(e.diffVectors, 2);
    ASSERT_EQ(e.shells.size(), 10u);
    EXPECT_EQ(e.shells.front().from, 0.0);
    EXPECT_NEAR(e.shells.back().resolution, 1e10 / (2e8 * e.all.to), 1e-9);
    SoFar soFar;
    int reflections = 0, indexed = 0;
    for (std::size_t i = 0; i < e.shells.size(); ++i) {
        const CellEvaluation::Shell& shell = e.shells[i];
        reflections += shell.reflections;
        indexed += shell.indexed;
        soFar.add(shell.from, shell.to, shell.reflections, shell.indexed, shell.largest, shell.rms,
                  shell.along);
        soFar.addAll(shell.mean);
        if (i > 0) {
            EXPECT_EQ(shell.from, e.shells[i - 1].to);
            EXPECT_NEAR(std::pow(shell.to, 3) - std::pow(shell.from, 3), std::pow(e.shells[0].to, 3), 1e-3);
        }
        EXPECT_LE(shell.largest, 2.0);
        EXPECT_GE(shell.rms, std::abs(shell.along));
        if (shell.indexed < 100) continue;
        EXPECT_NEAR(shell.mean[2], 0.2, 0.05);
        const double meanDistance = 0.75 * (std::pow(shell.to, 4) - std::pow(shell.from, 4)) /
                                    (std::pow(shell.to, 3) - std::pow(shell.from, 3));
        EXPECT_NEAR(shell.along, 0.01 / 1.01 * meanDistance, 0.1 * shell.along);
    }
    EXPECT_NEAR(soFar.sum(), 6381.75532, 1e-4);
    EXPECT_EQ(reflections, count);
    EXPECT_EQ(indexed, e.all.indexed);
    EXPECT_NEAR(e.all.indexed, 0.8 * count, 0.02 * count);
    m_input.radius = 0.0;
    EXPECT_EQ(evaluate().radius, 2.5);
}

TEST_F(CellEvaluationTest, WritesWhatItHolds) {
    TemporaryFolder folder;
    const CellEvaluation e = evaluate();
    ASSERT_TRUE(e.writeText(folder / "report.txt"));
    const std::string text = folder.read("report.txt");
    EXPECT_EQ(text, e.toText());
    for (const char* part :
         {"by hand", "177.2 degrees from a: its opposite", "16.7 degrees from a, at least 56.4 are asked for",
          "chosen as c\n      all others: longer than c\n", " rod  ", " disc  ",
          "the last line is a Niggli cell", "\noP ", "on nodes"})
        EXPECT_NE(text.find(part), std::string::npos) << part;
    RecordingLogObserver log;
    EXPECT_FALSE(e.writeText(folder / "none/report.txt"));
    EXPECT_EQ(log.count("none/report.txt. Check that the folder exists", VRK::Error), 1);
}

TEST_F(CellEvaluationTest, RefusesWhatIsNotComplete) {
    const CellEvaluation::Input complete = m_input;
    const UnitCell flat = reciprocalCell({{{10, 0, 0}, {0, 12, 0}, {10, 12, 0}}});
    const std::vector<std::function<void()>> spoilt = {
        [&] { m_input.parameter = nullptr; }, [&] { m_input.reflections = nullptr; },
        [&] { m_input.grid = nullptr; },      [&] { m_input.clusters = nullptr; },
        [&] { m_input.noise = nullptr; },     [&] { m_input.cell = nullptr; },
        [&] { m_input.cell = &flat; }};
    CellEvaluation evaluation;
    evaluation.method = "before";
    for (std::size_t i = 0; i < spoilt.size(); ++i) {
        RecordingLogObserver log;
        m_input = complete;
        spoilt[i]();
        EXPECT_FALSE(CellEvaluation::evaluate(m_input, &evaluation)) << i;
        EXPECT_EQ(log.count(i < 6 ? "not complete" : "degenerate", VRK::Error), 1) << i;
        EXPECT_EQ(evaluation.method, "before");
    }
    EXPECT_FALSE(CellEvaluation::evaluate(complete, nullptr));
}

}  // namespace
