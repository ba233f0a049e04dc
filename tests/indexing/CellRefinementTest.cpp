#include "indexing/CellRefinement.h"

#include <gtest/gtest.h>

#include <random>

#include "indexing/SimulatedReflections.h"
#include "support/RecordingLogObserver.h"

namespace {

constexpr double kPixelSize = 3.5e7;  // 1/m per voxel
const std::array<double, 6> kTriclinic = {5.3, 7.7, 9.9, 82.0, 97.0, 104.0};

/// Noisy reflections of a direct cell within 1 / 0.9 Angstrom, and a starting cell that is off.
struct Simulation {
    Simulation(const std::array<double, 6>& cell, unsigned seed, double noise, double outliers,
               double startError)
        : random(seed), start(reciprocalVectors(directCellOf(cell, seed, kPixelSize))) {
        std::normal_distribution<double> normal(0.0, 1.0);
        std::uniform_real_distribution<double> uniform(0.0, 1.0);
        forEachNode(start, 1.0 / 0.9 / (kPixelSize * 1e-10), [&](int, int, int, const Vec3& node) {
            if (uniform(random) > 0.08) return;
            const double spread = uniform(random) < outliers ? 6.0 : noise;
            list->push_back(new Reflex(trueOrigin[0] + node[0] + spread * normal(random),
                                       trueOrigin[1] + node[1] + spread * normal(random),
                                       trueOrigin[2] + node[2] + spread * normal(random)));
        });
        for (Vec3& vector : start)
            for (double& component : vector)
                component += startError * std::hypot(vector[0], vector[1], vector[2]) * normal(random);
    }

    std::mt19937 random;
    Mat3 start;
    Vec3 trueOrigin = {255.9, 255.1, 220.3};
    ReflexVectorPtr list{new ReflexVector};
};

void expectNear(const CellRefinement::Result& found, const std::array<double, 6>& cell, double sigmas) {
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_NEAR(found.cell[i], cell[i], sigmas * found.cellSigma[i] + 1e-9) << "parameter " << i;
}

TEST(CellRefinementTest, FindsTheCellFromAWrongStartInSpiteOfOutliers) {
    Simulation data(kTriclinic, 5, 0.3, 0.15, 0.003);
    UnitCell cell = reciprocalCell(data.start, kPixelSize);
    double origin[3] = {255.5, 255.5, 220.5};
    CellRefinement refinement;
    ASSERT_TRUE(refinement.refine(data.list.get(), &cell, origin));
    const CellRefinement::Result& found = refinement.result();
    expectNear(found, kTriclinic, 4.0);
    EXPECT_LT(found.cellSigma[0] / found.cell[0], 2e-4);
    EXPECT_NEAR(found.sigma, 0.3, 0.05);
    EXPECT_GT(found.indexed, 0.85 * found.reflections);
    EXPECT_TRUE(found.stable);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_NEAR(origin[i], data.trueOrigin[i], 4.0 * found.originSigma[i]);
    double a[3];
    cell.get_a(a);
    EXPECT_EQ(a[0], found.basis[0][0]);
}

TEST(CellRefinementTest, IsExactOnExactData) {
    Simulation data(kTriclinic, 6, 0.0, 0.0, 0.002);
    UnitCell cell = reciprocalCell(data.start, kPixelSize);
    double origin[3] = {255.5, 255.5, 220.5};
    CellRefinement refinement;
    ASSERT_TRUE(refinement.refine(data.list.get(), &cell, origin));
    expectNear(refinement.result(), kTriclinic, 0.0);
    EXPECT_EQ(refinement.result().indexed, static_cast<int>(data.list->size()));
}

// The two directions of the claim: not too small (about 95 % within two), not too large (about 68 % within
// one).
TEST(CellRefinementTest, UncertaintiesCoverTheTruth) {
    const struct {
        LATTICE::BravaisTypes type;
        std::array<double, 6> cell;
        double outliers;
    } cases[] = {{LATTICE::aP, kTriclinic, 0.1},
                 {LATTICE::mP, {6.1, 8.8, 7.4, 90.0, 101.0, 90.0}, 0.1},
                 {LATTICE::hP, {7.0, 7.0, 9.5, 90.0, 90.0, 120.0}, 0.0}};
    for (const auto& one : cases) {
        int values = 0, within1 = 0, within2 = 0;
        for (unsigned seed = 0; seed < 200; ++seed) {
            Simulation data(one.cell, seed, 0.4, one.outliers, 0.001);
            UnitCell cell = reciprocalCell(data.start, kPixelSize);
            double origin[3] = {255.5, 255.5, 220.5};
            CellRefinement refinement;
            refinement.setConstraint(one.type);
            ASSERT_TRUE(refinement.refine(data.list.get(), &cell, origin));
            const CellRefinement::Result& found = refinement.result();
            for (std::size_t i = 0; i < 6; ++i) {
                if (found.cellSigma[i] == 0.0) continue;
                const double off = std::abs(found.cell[i] - one.cell[i]) / found.cellSigma[i];
                ++values;
                within1 += off <= 1.0;
                within2 += off <= 2.0;
            }
        }
        EXPECT_NEAR(100.0 * within1 / values, 68.3, 5.0) << one.type << " " << one.outliers;
        EXPECT_NEAR(100.0 * within2 / values, 95.4, 2.5) << one.type << " " << one.outliers;
    }
}

TEST(CellRefinementTest, TiesTheConventionalCell) {
    // A body-centred cubic lattice through its primitive vectors: conventional = primitive * matrix.
    const std::array<double, 6> primitive = {10.4, 10.4, 10.4, 109.4712206, 109.4712206, 109.4712206};
    Simulation data(primitive, 11, 0.3, 0.05, 0.001);
    const double toConventional[3][3] = {{0, 1, 1}, {1, 0, 1}, {1, 1, 0}};
    UnitCell cell = reciprocalCell(data.start, kPixelSize);
    double origin[3] = {255.5, 255.5, 220.5};
    CellRefinement refinement;
    refinement.setConstraint(LATTICE::cI, toConventional);
    ASSERT_TRUE(refinement.refine(data.list.get(), &cell, origin));
    const CellRefinement::Result& found = refinement.result();
    const double edge = 2.0 * 10.4 / std::sqrt(3.0);
    EXPECT_NEAR(found.cell[0], edge, 4.0 * found.cellSigma[0]);
    EXPECT_NEAR(found.cell[1], found.cell[0], 1e-9);
    EXPECT_NEAR(found.cell[2], found.cell[0], 1e-9);
    EXPECT_EQ(found.cell[4], 90.0);
    EXPECT_EQ(found.cellSigma[4], 0.0);
    EXPECT_NEAR(found.volume, std::pow(found.cell[0], 3), 1e-6);
    EXPECT_NEAR(found.volumeSigma, 3.0 * found.cell[0] * found.cell[0] * found.cellSigma[0], 1e-3);
    const std::unique_ptr<UnitCell> direct(cell.getReciprocalCell());
    EXPECT_NEAR(direct->getAlpha(), 109.4712206, 1e-6);
}

TEST(CellRefinementTest, RefusesWhatCannotBeRefined) {
    const Mat3 basis = {{{10, 0, 0}, {0, 11, 0}, {0, 0, 12}}};
    const Vec3 zero = {};
    const auto fails = [&](ReflexVector* list, UnitCell cell, double tolerance) {
        RecordingLogObserver log;
        double origin[3] = {0, 0, 0};
        CellRefinement refinement;
        refinement.setTolerance(tolerance);
        const bool refined = refinement.refine(list, &cell, origin);
        return !refined && log.count("The cell could not be refined", VRK::Error) == 1 && origin[0] == 0.0;
    };
    ReflexVectorPtr flat(new ReflexVector);
    for (int i = 0; i < 40; ++i)
        flat->push_back(new Reflex(10.0 * (i % 7 - 3), 11.0 * (i / 7 - 2), 0.0));
    ReflexVectorPtr none(new ReflexVector);
    EXPECT_TRUE(fails(nullptr, reciprocalCell(basis), 0.2));
    EXPECT_TRUE(fails(none.get(), reciprocalCell(basis), 0.2));
    EXPECT_TRUE(fails(flat.get(), reciprocalCell(basis), 0.2));
    EXPECT_TRUE(fails(flat.get(), reciprocalCell({basis[0], basis[0], zero}), 0.2));
    EXPECT_TRUE(fails(flat.get(), reciprocalCell(basis), std::nan("")));
    EXPECT_TRUE(fails(flat.get(), directCellOf(kTriclinic, 1, 1e10), 0.2));
}

}  // namespace
