#include "cellfinding/CalculateCellAlgorithm.h"

#include "Clustered.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "crystallography/NiggliReduction.h"
#include "support/SimulatedReflections.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using testing_support::Clustered;
using Vector = Vec3;

Vector vectorOf(const Point<double>& point) {
    return {point.getData(0), point.getData(1), point.getData(2)};
}

double distance(const Vector& u, const Vector& v) {
    return std::hypot(u[0] - v[0], u[1] - v[1], u[2] - v[2]);
}

/// What the steps take and hand to their caller, freed at the end.
struct Results : Clustered<ClusterPoint<double>> {
    using Centres = std::vector<Cluster<Point<double>>*>;

    void addCluster(const Vector& centre, int size) {
        Point<double> point(centre.data(), 3);
        const std::vector<Point<double>*> pointers(static_cast<std::size_t>(size), &point);
        clusters.push_back(new Cluster<Point<double>>(&pointers, static_cast<int>(clusters.size()) + 1));
    }
    Mat3 base() const { return {vectorOf(a), vectorOf(b), vectorOf(c)}; }

    void two(ReflexVector* reflections, double* seconds = nullptr) {
        grid.reset(algorithm.StepTwo_CalcDiffVectors(&parameter, reflections, seconds));
    }
    double three() { return algorithm.StepThree_Clustering(&parameter, grid.get(), &clusters, &noise); }
    double four(UnitCell* cell, ClusterPoint<double>* y) {
        return algorithm.StepFour_FindLinearIndependentVectors(&parameter, cell, &clusters, &a, y, &c);
    }
    double five(Parameter* settings) {
        return algorithm.StepFive_CalculateNiggliCell(settings, &a, &b, &c, &a, &b, &c);
    }
    double six() {
        return algorithm.StepSix_Refinement(&clusters, &a, &b, &c, &a, &b, &c, &refined[0], &refined[1],
                                            &refined[2]);
    }
    double basis(Centres* centres) { return algorithm.findBasis(&parameter, centres, &a, &b, &c); }
    double reduce(ClusterPoint<double>* y) { return algorithm.calculateNiggliCell2(&a, y, &c, &a, &b, &c); }
    double refine(Centres* centres) { return algorithm.refineCell(centres, &a, &b, &c, &a, &b, &c); }
    double fromReflections(ReflexVector* reflections, const double* origin) {
        return algorithm.testCellDetectionWithReflections(&parameter, reflections, origin, &a, &b, &c);
    }

    CalculateCellAlgorithm algorithm;
    Parameter parameter;
    ClusterPoint<double> a{3, -1}, b{3, -1}, c{3, -1};
    bool refined[3] = {false, false, false};
};

/// The vectors of a cell, none of them along an axis of the volume.
Mat3 basisOf(const std::array<double, 6>& cell) {
    Mat3 basis;
    directCellOf(cell, 3, 1.0).getBase(basis[0].data(), basis[1].data(), basis[2].data());
    return basis;
}

/// Reflections of a lattice with a wedge missing, each moved a little, and some that are none.
ReflexVectorPtr reflectionsOf(const Mat3& basis, double radius, double sigma, double outliers, unsigned seed,
                              const Vector& origin = {}) {
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, sigma);
    std::uniform_real_distribution<double> anywhere(-radius, radius);
    ReflexVectorPtr list(new ReflexVector);
    const auto add = [&](const Vector& g, auto& off) {
        list->push_back(new Reflex(origin[0] + g[0] + off(random), origin[1] + g[1] + off(random),
                                   origin[2] + g[2] + off(random)));
    };
    forEachNode(basis, radius, [&](int, int, int, const Vector& g) {
        const bool unseen = std::abs(g[2]) > 1.7 * std::abs(g[0]);
        if (!unseen && random() % 3 == 0) add(g, noise);
    });
    const auto seen = static_cast<double>(list->size());
    while (static_cast<double>(list->size()) < (1.0 + outliers) * seen)
        add({}, anywhere);
    return list;
}

/// That vectors are a basis of a lattice, each within a distance, in voxels, of its node.
void expectBasis(const Mat3& lattice, const Mat3& vectors, double within) {
    const Eigen::Map<const Eigen::Matrix3d> nodes(lattice[0].data()), found(vectors[0].data());
    const Eigen::Matrix3d indices = (nodes.inverse() * found).array().round();
    EXPECT_LT((nodes * indices - found).colwise().norm().maxCoeff(), within);
    EXPECT_NEAR(std::abs(indices.determinant()), 1.0, 1e-9);
}

TEST(CalculateCellAlgorithm, FindsTheCellsOfNoisyReflections) {
    const std::tuple<const char*, std::array<double, 6>, double> cases[] = {
        {"cubic", {10, 10, 10, 90, 90, 90}, 22},
        {"body-centred", {10, 10, 10, 109.47, 109.47, 109.47}, 22},
        {"hexagonal", {9, 9, 14, 90, 90, 120}, 25},
        {"orthorhombic with a long axis", {6, 9, 21, 90, 90, 90}, 30},
        {"monoclinic", {8, 11, 13, 90, 107, 90}, 26},
        {"triclinic", {9, 10, 12.5, 83, 98, 104}, 26},
    };
    SoFar soFar;
    for (const auto& [name, parameters, maxLength] : cases)
        for (const bool halfSpace : {true, false}) {
            SCOPED_TRACE(std::string(name) + (halfSpace ? ", half" : ""));
            const Mat3 basis = basisOf(parameters);
            const ReflexVectorPtr reflections = reflectionsOf(basis, 75.0, 0.25, 0.4, 7);
            Results run;
            run.parameter.setUseHaldDiffVectorSpace(halfSpace);
            run.parameter.setMaxLength(maxLength);
            run.parameter.setDBSCANEps(0.9);
            run.parameter.setDBSCANMinPts(15);
            double seconds = -7.0;
            run.two(reflections.get(), &seconds);
            ASSERT_TRUE(run.grid);
            EXPECT_GE(seconds, 0.0);
            ASSERT_GE(run.three(), 0.0);
            UnitCell cell;
            ASSERT_GE(run.four(&cell, &run.b), 0.0);
            EXPECT_FALSE(cell.isDegenerate());
            expectBasis(basis, run.base(), 0.5);
            // From longer vectors of the lattice; never more than so many steps.
            const Mat3 chosen = run.base();
            run.a.setDataAndDimension(nodeOf(chosen, 1, 1, 0).data(), 3);
            run.c.setDataAndDimension(nodeOf(chosen, -2, 1, 1).data(), 3);
            run.parameter.setGridSizeNiggliCell(0);
            EXPECT_EQ(run.five(&run.parameter), -1.0);
            run.parameter.setGridSizeNiggliCell(halfSpace ? 5 : 1000000);
            ASSERT_GE(run.five(&run.parameter), 0.0);
            EXPECT_NEAR(run.a.getLength(), parameters[0], 0.5);
            EXPECT_NEAR(run.c.getLength(), parameters[2], 0.5);
            ASSERT_GE(run.six(), 0.0);
            EXPECT_TRUE(run.refined[0] && run.refined[1] && run.refined[2]);
            expectBasis(basis, run.base(), 0.15);
            for (const Vector& vector : run.base())
                soFar.addAll(vector);

            // The same by the other routes.
            const double shortest = run.a.getLength();
            ASSERT_GE(run.basis(&run.clusters), 0.0);
            NiggliReduction::setNarration(nullptr);
            ASSERT_GE(run.reduce(&run.b), 0.0);
            NiggliReduction::setNarration(&std::cout);
            EXPECT_NEAR(run.a.getLength(), shortest, 0.2);
            EXPECT_GT(Eigen::Map<const Eigen::Matrix3d>(run.base()[0].data()).determinant(), 0.0);
            ASSERT_GE(run.refine(&run.clusters), 0.0);
            expectBasis(basis, run.base(), 0.15);
            for (const Vector& vector : run.base())
                soFar.addAll(vector);
        }
    EXPECT_NEAR(soFar.sum(), 77.8401938, 1e-6);
}

TEST(CalculateCellAlgorithm, OtherClusteringsFindOneClusterANode) {
    const std::vector<Vector> apart = {{12, 0, 0}, {0, 13, 0}, {0, 0, 14}, {12, 13, 0}};
    std::vector<Vector> row;  // a long axis: its clusters touch
    for (int n = 1; n < 9; ++n)
        row.push_back({20, 5, 2.6 * n});
    using enum ClusteringMethod;
    using Method = std::optional<ClusteringMethod>;  // none: with smaller and smaller radii
    const std::tuple<const char*, std::vector<Vector>, double, Method, int, std::size_t> cases[] = {
        {"DBSCAN", apart, 1.5, DBSCAN, 0, 4},
        {"DDSC", apart, 1.5, DDSC, 0, 4},
        {"FSC", apart, 1.5, FSC, 0, 4},
        {"one pass over a row", row, 1.6, {}, 0, 1},
        {"many passes over a row", row, 1.6, {}, 1000, 8},
        {"compact clusters stay", apart, 1.5, {}, 8, 4},
    };
    for (const auto& [name, nodes, eps, method, depth, clusters] : cases) {
        SCOPED_TRACE(name);
        Results run;
        for (const Vector& node : nodes)
            run.addBlob({node[0], node[1], node[2]}, 300, 0.4);
        run.makeGrid();
        run.parameter.setDBSCANEps(eps);
        run.parameter.setDBSCANMinPts(20);
        ASSERT_GE(method ? run.algorithm.clusteringStep(&run.parameter, run.grid.get(), &run.clusters,
                                                        &run.noise, *method)
                         : run.algorithm.rekursivClusteringWithDBSCAN(&run.parameter, run.grid.get(),
                                                                      &run.clusters, &run.noise, depth),
                  0.0);
        EXPECT_FALSE(run.parameter.getClusterOptionsChanged());
        ASSERT_EQ(run.clusters.size(), clusters);
        EXPECT_TRUE(run.agrees());
        EXPECT_EQ(run.count(-1), 0);
    }
}

TEST(CalculateCellAlgorithm, JoinsNeighboursByWayOfOthers) {
    Results run;
    for (const double x : {0.0, 20.0, 4.0, 2.0, 22.5})
        run.addCluster({x, 1, 0}, 3);
    EXPECT_TRUE(run.algorithm.postprocessingDDSCclustering(&run.clusters, 2.0));
    ASSERT_EQ(run.clusters.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        const auto* cluster = run.clusters[static_cast<std::size_t>(i)];
        EXPECT_EQ(std::pair(cluster->getClusterID(), cluster->getNumberOfPoints()),
                  std::pair(i + 1, i == 0 ? 9 : 3));
    }
    EXPECT_DOUBLE_EQ(run.clusters[0]->getCenterOfGrafity(0), 2.0);
}

TEST(CalculateCellAlgorithm, FindsABasisInReflectionsTooFewForClusters) {
    const Mat3 basis = basisOf({9, 10, 12.5, 83, 98, 104});
    const Vector origin = {40, 41, 42};
    const ReflexVectorPtr reflections = reflectionsOf(basis, 32.0, 0.2, 0.3, 5, origin);
    ASSERT_LT(reflections->size(), 60u);
    reflections->push_back(nullptr);
    Results run;
    run.parameter.setDBSCANEps(1.0);
    EXPECT_GE(run.fromReflections(reflections.get(), origin.data()), 0.0);
    expectBasis(basis, run.base(), 0.3);
}

TEST(CalculateCellAlgorithm, PutsAVectorOntoTheNearestCentre) {
    Results run;
    run.addCluster({-10, 1, 0}, 5);
    run.addCluster({8.5, 0, 0}, 5);
    Point<double> vector(Vector{9.5, -0.8, 0}.data(), 3);
    EXPECT_TRUE(run.algorithm.refineBaseVector(&run.clusters, &vector));
    EXPECT_EQ(vectorOf(vector), (Vector{10, -1, 0}));
    vector.setData(40.0, 1);
    EXPECT_FALSE(run.algorithm.refineBaseVector(&run.clusters, &vector));
}

TEST(CalculateCellAlgorithm, StepOneCutsAroundTheHalvesOfTheVolume) {
    using List = std::vector<double>;
    const std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(11, 20, 30));  // its halves are 5, 10, 15
    for (const auto& [cutOff, limit, expected] : {std::tuple{false, false, List{0, 4, 5, 9, 10}},
                                                  {true, false, List{5, 9, 10}},
                                                  {false, true, List{0, 4, 5, 9}},
                                                  {true, true, List{5, 9}}}) {
        RecordingLogObserver log;
        ReflexVectorPtr reflections(new ReflexVector);
        for (const double x : {0.0, 4.0, 5.0, 9.0, 10.0})
            reflections->push_back(new Reflex(5.0 + x, 10.0, 15.0));
        const std::vector<Reflex*> all(reflections->begin(), reflections->end());
        Parameter parameter;
        parameter.setCutOffZeroBeam(cutOff);
        parameter.setMinDistToZeroBeam(5.0);
        parameter.setLimitResolution(limit);
        parameter.setLimitOfResolution(9.0);
        EXPECT_GE(CalculateCellAlgorithm().StepOne_CutOfZeroBeam(reflections.get(), volume.get(), &parameter),
                  0.0);
        std::vector<double> left;
        for (Reflex* reflex : *reflections)
            left.push_back(reflex->getCenterInX() - 5.0);
        EXPECT_EQ(left, expected);
        EXPECT_TRUE(log.has("Cut off started...", VRK::Normal));
        EXPECT_TRUE(log.has("New number of reflections: " + std::to_string(left.size()), VRK::Normal));
        for (Reflex* reflex : all)
            if (std::find(reflections->begin(), reflections->end(), reflex) == reflections->end())
                Reflex::destroy(reflex);
    }
}

TEST(CalculateCellAlgorithm, RefusesMissingInputWithOneLine) {
    Results run;
    CalculateCellAlgorithm& algorithm = run.algorithm;
    const std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(4, 4, 4));
    ReflexVector one;
    one.push_back(new Reflex(1.0, 2.0, 3.0));
    double seconds = 0.0;
    const ClusterPoint<double> untouched = run.a;
    const double zero[3] = {};
    auto* const clusters = &run.clusters;
    const auto two = [&](ReflexVector* list) {
        run.two(list, &seconds);
        EXPECT_FALSE(run.grid);
        return seconds;
    };
    RecordingLogObserver log;
    const auto expect = [&](VRK::MessageType type, const char* message, double answer) {
        EXPECT_EQ(answer, -1.0) << message;
        EXPECT_EQ(log.count(message, type), 1) << message;
        EXPECT_EQ(log.count("", VRK::Error) + log.count("", VRK::Warning), 1) << message;
        EXPECT_TRUE(one.size() == 1 && run.a.isEqual(&untouched)) << message;
        log.messages.clear();
        seconds = 0.0;
    };
    using enum VRK::MessageType;
    expect(Error, "No reflections founded.",
           algorithm.StepOne_CutOfZeroBeam(nullptr, volume.get(), &run.parameter));
    expect(Error, "The cut off needs a volume",
           algorithm.StepOne_CutOfZeroBeam(&one, nullptr, &run.parameter));
    expect(Error, "Calculate diff vectors failed.", two(nullptr));
    expect(Error, "Calculate diff vectors failed.", two(&one));
    expect(Warning, "No cluster centers found.", run.three());
    expect(Warning, "No cluster centers found.",
           algorithm.clusteringStep(nullptr, nullptr, clusters, &run.noise, ClusteringMethod::DDSC));
    expect(Warning, "No three linear independent vectors among 0", run.four(nullptr, &run.b));
    expect(Error, "three points are needed", run.four(nullptr, nullptr));
    expect(Error, "six points are needed", run.five(nullptr));
    expect(Warning, "No three linear independent vectors in the lattice", run.five(&run.parameter));
    expect(Error, "No clusters loaded during the refinement of the cell.", run.six());
    expect(Warning, "No clusters to join.", algorithm.postprocessingDDSCclustering(clusters, 3.0) - 1.0);
    expect(Warning, "No three of 0 cluster centers form a basis.", run.basis(clusters));
    expect(Error, "three points are needed to find a basis.", run.basis(nullptr));
    expect(Warning, "No three of 1 reflections form a basis.", run.fromReflections(&one, zero));
    expect(Error, "an origin and three points are needed", run.fromReflections(&one, nullptr));
    expect(Warning, "span no cell that could be reduced", run.reduce(&run.b));
    expect(Error, "Six points are needed", run.reduce(nullptr));
    expect(Warning, "do not determine all three", run.refine(clusters));
    expect(Error, "six points are needed to refine", run.refine(nullptr));
    expect(Warning, "No cluster center is near the base vector.",
           algorithm.refineBaseVector(clusters, nullptr) - 1.0);
    // The clusters have been dealt with, in vain.
    EXPECT_FALSE(run.parameter.getClusterOptionsChanged());
    EXPECT_TRUE(run.parameter.getCellOptionsChanged());
}

TEST(CalculateCellAlgorithm, NoVectorFallsOffTheGrid) {
    const std::vector<std::vector<Vector>> cases = {
        {{0, 0, 5}, {10, 0, 5}, {10, 12, 5}, {0, 12, 5}},  // in a plane
        {{1, 0, 0}, {6, 0, 0}, {16, 0, 0}},                // on a line
        {{0, 0, 0}, {7, 8, 9}, {14, 17, 20}},              // differences all positive
        {{0, 0, 0}, {7, -8, 9}, {14, -17, 20}},            // or all negative in y
    };
    for (const std::vector<Vector>& places : cases) {
        SCOPED_TRACE(testing::PrintToString(places));
        ReflexVectorPtr reflections(new ReflexVector);
        for (const Vector& place : places)
            reflections->push_back(new Reflex(place[0], place[1], place[2]));
        Results run;
        run.two(reflections.get());
        ASSERT_TRUE(run.grid);
        EXPECT_FALSE(run.parameter.getDiffVectorOptionsChanged());
        EXPECT_TRUE(run.parameter.getClusterOptionsChanged() && run.parameter.getCellOptionsChanged());
        const auto count = static_cast<int>(places.size());
        EXPECT_EQ(run.grid->getNumberOfPoints(), count * (count - 1) / 2);
        for (const ClusterPoint<double>* point : *run.grid->getPoints())
            EXPECT_GT(point->getLength(), 3.0);
    }
}

TEST(CalculateCellAlgorithm, PruningLeavesNoClusterEmpty) {
    Results run;
    ReflexVectorPtr reflections(new ReflexVector);
    for (int i = 0; i < 30; ++i)
        reflections->push_back(new Reflex(10.0 * i, 0.0, 0.001 * i * i));
    run.parameter.setMaxLength(25.0);
    run.parameter.setDBSCANMinPts(5);
    run.parameter.setRefineCluster(true);
    run.two(reflections.get());
    for (const auto& [percent, first, second] : {std::tuple{50.0, 14, 14}, {0.0, 29, 28}, {3.5, 1, 28}}) {
        run.parameter.setClusterRefinementPercent(percent);
        ASSERT_GE(run.three(), 0.0);
        ASSERT_EQ(run.clusters.size(), 2u);
        EXPECT_EQ(run.clusters[0]->getNumberOfPoints(), first);
        EXPECT_EQ(run.clusters[1]->getNumberOfPoints(), second);
        run.clear();
    }
}

TEST(CalculateCellAlgorithm, ChoosesShortVectorsOutOfOnePlane) {
    struct Case {
        const char* name;
        std::vector<Vector> centres;
        std::vector<std::size_t> chosen;  // none: no base
        double angleA = 0.984, angleB = 0.7, detLimit = 0.0;
    };
    const Mat3 sharp = basisOf({10, 10.5, 11, 20, 20, 20});
    const Case cases[] = {
        {"noise lifts a centre out of the plane",
         {{10, 0, 0}, {0, 11, 0}, {-6, 8, 0.7}, {6, 9, 0.6}, {1, 2, 14}},
         {0, 2, 4}},
        {"of equal lengths the first",
         {{0, 0, 10}, {0, 10, 0}, {10, 0, 0}, {0, 0, -10}, {0, -10, 0}},
         {0, 1, 2}},
        {"a negative determinant is as good", {{10, 0, 0}, {0, 0, 11}, {0, 12, 0}}, {0, 1, 2}},
        {"20 degrees between all axes", {sharp[0], sharp[1], sharp[2]}, {0, 1, 2}, 0.3, 0.3},
        {"opposite vectors", {{10, 0, 0}, {-10, 0.5, 0}, {0, 11, 0}, {0, 0, 12}}, {0, 2, 3}},
        {"determinant at the limit",
         {{10, 0, 0}, {0, 11, 0}, {0, 0, 12}, {0, 0, 13}},
         {0, 1, 3},
         0.984,
         0.7,
         1320.0},
        {"all in a plane", {{10, 0, 0}, {0, 11, 0}, {-6, 8, 0.7}, {7, 8, 0.5}}, {}},
        {"all on a line", {{10, 0, 0}, {20, 0, 0.1}, {30, 0, 0}}, {}},
        {"two", {{10, 0, 0}, {0, 11, 0}}, {}},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        Results run;
        for (const Vector& centre : one.centres)
            run.addCluster(centre, 3);
        run.parameter.setDetLimit(one.detLimit);
        run.parameter.setAngleA(one.angleA);
        run.parameter.setAngleB(one.angleB);
        UnitCell cell;
        const double seconds = run.four(&cell, &run.b);
        if (one.chosen.empty()) {
            EXPECT_EQ(seconds, -1.0);
            EXPECT_EQ(vectorOf(run.a), Vector{});
            EXPECT_TRUE(cell.isStandartCell());
            continue;
        }
        EXPECT_GE(seconds, 0.0);
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_LT(distance(run.base()[i], one.centres[one.chosen[i]]), 1e-9) << i;
        Vector c;
        cell.get_c(c.data());
        EXPECT_EQ(c, vectorOf(run.c));
    }
}

TEST(CalculateCellAlgorithm, StepSixFitsADirectionToItsOwnRow) {
    const Vector truth = {10.0, 1.0, -0.5};
    Results run;
    const auto at = [&](double n, double x, double y, double z) {
        return Vector{n * truth[0] + x, n * truth[1] + y, n * truth[2] + z};
    };
    // The row: many points or close to it. What is left: a wrong cluster beside the second node, one
    // between two nodes, and the neighbouring row.
    run.addCluster(at(1, 0.0, 0.3, 0.0), 10);
    run.addCluster(at(-1, 0.02, 0.0, 0.0), 100);
    run.addCluster(at(2, 0.0, -0.02, 0.01), 90);
    run.addCluster(at(3, 0.0, 0.0, -0.03), 80);
    run.addCluster(at(2, 1.2, 0.0, 0.6), 40);
    run.addCluster(at(1.5, 0.0, 0.0, 0.0), 60);
    run.addCluster({0.0, 4.5, 0.0}, 90);
    run.addCluster(at(2, 0.0, 4.5, 0.0), 90);
    const Vector start = at(1, 0.3, 0.3, 0.2);
    run.a.setDataAndDimension(start.data(), 3);
    run.b.setDataAndDimension(Vector{0.0, 0.0, 7.0}.data(), 3);

    RecordingLogObserver log;
    ClusterPoint<double> out[3] = {{3, -1}, {3, -1}, {3, -1}};
    bool refined[3] = {false, true, true};
    EXPECT_GE(
        CalculateCellAlgorithm().StepSix_Refinement(&run.clusters, &run.a, &run.b, &run.c, &out[0], &out[1],
                                                    &out[2], &refined[0], &refined[1], nullptr),
        0.0);
    EXPECT_TRUE(refined[0]);
    EXPECT_LT(distance(vectorOf(out[0]), truth), 0.02);
    // No centre lies on the row of b, so that it stays; c has no flag.
    EXPECT_FALSE(refined[1]);
    EXPECT_EQ(vectorOf(out[1]), vectorOf(run.b));
    EXPECT_EQ(log.count("Error during the refinement of the cell.", VRK::Error), 1);
    EXPECT_EQ(log.count("The c-direction can't be refined.", VRK::Warning), 1);
}

TEST(CalculateCellAlgorithm, StepSixStopsAtTheFirstMissingDirection) {
    Results run;
    run.addCluster({10, 0, 0}, 5);
    run.addCluster({0, 10, 0}, 5);
    run.addCluster({0, 0, 10}, 5);
    for (int missing = 0; missing < 3; ++missing) {
        RecordingLogObserver log;
        ClusterPoint<double> points[3] = {{3, -1}, {3, -1}, {3, -1}};
        for (int i = 0; i < 3; ++i)
            points[i].setData(9.5, i);
        const auto input = [&](int i) { return i == missing ? nullptr : &points[i]; };
        bool refined[3] = {true, true, true};
        const double seconds = CalculateCellAlgorithm().StepSix_Refinement(
            &run.clusters, input(0), input(1), input(2), &points[0], &points[1], &points[2], &refined[0],
            &refined[1], &refined[2]);
        EXPECT_EQ(seconds < 0.0, missing == 0);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(refined[i], i < missing);
            EXPECT_DOUBLE_EQ(points[i].getData(i), i < missing ? 10.0 : 9.5);
        }
        const std::string message = std::string("The ") + "abc"[missing] + "-direction can't be refined.";
        EXPECT_EQ(log.count(message, VRK::Warning), 1);
        EXPECT_EQ(log.count("", VRK::Warning), 1);
    }
}

}  // namespace
