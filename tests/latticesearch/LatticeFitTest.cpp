#include "pipeline/latticesearch/LatticeFit.h"

#include "crystallography/RandomLattice.h"
#include "support/SimulatedReflections.h"
#include "support/SoFar.h"

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
            Eigen::Vector3d place = trueOrigin + Eigen::Vector3d(node.data());
            for (double& coordinate : place)
                coordinate += spread * normal(random);
            points.push_back({place});
        });
        for (Vec3& vector : start)
            for (double& component : vector)
                component += startError * std::hypot(vector[0], vector[1], vector[2]) * normal(random);
    }

    std::mt19937 random;
    vrk::RefinedLattice fit(const vrk::CellTies& ties = {}) const {
        const vrk::Lattice from =
            vrk::Lattice::of(reciprocalCell(start, kPixelSize), Eigen::Vector3d(255.5, 255.5, 220.5));
        const vrk::LatticeFit found = vrk::fitLattice(points, from, 0.25, ties);
        EXPECT_TRUE(found.valid);
        return vrk::describe(found, ties);
    }

    Mat3 start;
    Eigen::Vector3d trueOrigin = {255.9, 255.1, 220.3};
    std::vector<vrk::FitPoint> points;
};

// The two directions of the claim: not too small (about 95 % within two), not too large (about 68 % within
// one).
TEST(LatticeFit, UncertaintiesCoverTheTruth) {
    const std::tuple<LATTICE::BravaisTypes, std::array<double, 6>, double, double> cases[] = {
        {LATTICE::aP, kTriclinic, 0.1, 180372.790859},
        {LATTICE::mP, {6.1, 8.8, 7.4, 90.0, 101.0, 90.0}, 0.1, 179968.058193},
        {LATTICE::hP, {7.0, 7.0, 9.5, 90.0, 90.0, 120.0}, 0.0, 187071.366461}};
    for (const auto& [type, cell, outliers, sum] : cases) {
        SoFar soFar;
        int values = 0, within1 = 0, within2 = 0;
        for (unsigned seed = 0; seed < 200; ++seed) {
            const Simulation data(cell, seed, 0.4, outliers, 0.001);
            const vrk::RefinedLattice found = data.fit(vrk::CellTies::of(type, Eigen::Matrix3d::Identity()));
            soFar.addAll(found.cell);
            soFar.addAllTame(found.cellSigma);
            soFar.addAllTame(found.originSigma);
            soFar.add(found.volume, found.volumeSigma, found.sigma, found.rms, found.indexed, found.rounds);
            for (std::size_t i = 0; i < 6; ++i) {
                if (found.cellSigma[i] == 0.0) continue;
                const double off = std::abs(found.cell[i] - cell[i]) / found.cellSigma[i];
                ++values;
                within1 += off <= 1.0;
                within2 += off <= 2.0;
            }
        }
        EXPECT_NEAR(100.0 * within1 / values, 68.3, 5.0) << type;
        EXPECT_NEAR(100.0 * within2 / values, 95.4, 2.5) << type;
        EXPECT_NEAR(soFar.sum(), sum, 1e-3) << type;
    }
}

TEST(LatticeFit, TiesTheConventionalCell) {
    // A body-centred cubic lattice through its primitive vectors: conventional = primitive * matrix.
    const std::array<double, 6> primitive = {10.4, 10.4, 10.4, 109.4712206, 109.4712206, 109.4712206};
    const Simulation data(primitive, 11, 0.3, 0.05, 0.001);
    Eigen::Matrix3d toConventional;
    toConventional << 0, 1, 1, 1, 0, 1, 1, 1, 0;
    const vrk::RefinedLattice found = data.fit(vrk::CellTies::of(LATTICE::cI, toConventional));
    const double edge = 2.0 * 10.4 / std::sqrt(3.0);
    EXPECT_NEAR(found.cell[0], edge, 4.0 * found.cellSigma[0]);
    EXPECT_NEAR(found.cell[1], found.cell[0], 1e-9);
    EXPECT_NEAR(found.cell[2], found.cell[0], 1e-9);
    EXPECT_EQ(found.cell[4], 90.0);
    EXPECT_EQ(found.cellSigma[4], 0.0);
    EXPECT_NEAR(found.volume, std::pow(found.cell[0], 3), 1e-6);
    EXPECT_NEAR(found.volumeSigma, 3.0 * found.cell[0] * found.cell[0] * found.cellSigma[0], 1e-3);
    const std::unique_ptr<UnitCell> direct(found.lattice.toUnitCell().getReciprocalCell());
    EXPECT_NEAR(direct->getAlpha(), 109.4712206, 1e-6);
    EXPECT_EQ(found.lattice.pixelSize, kPixelSize);
}

TEST(LatticeFit, EveryTypeTiesItsParameters) {
    testing_support::RandomLattice random(5);
    for (const LATTICE::BravaisTypes type : testing_support::kAllBravaisTypes) {
        const auto [a, b, c, alpha, beta, gamma] = testing_support::parametersOf(random.conventional(type));
        const vrk::CellTies ties = vrk::CellTies::of(type, Eigen::Matrix3d::Identity());
        const std::array edges = {a, b, c}, angles = {alpha, beta, gamma};
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(ties.length[i] == ties.length[i / 2], std::abs(edges[i] - edges[i / 2]) < 1e-9) << type;
            const bool isFree = std::abs(angles[i] - 90) > 1e-9 && std::abs(angles[i] - 120) > 1e-9;
            EXPECT_NEAR(ties.angle[i], isFree ? 0 : angles[i], 1e-9) << type;
        }
        EXPECT_EQ(ties.any, type != LATTICE::aP);
    }
    const vrk::CellTies shape = vrk::CellTies::ofShape({2, 3, 5, 80, 95, 110}, Eigen::Matrix3d::Identity());
    EXPECT_EQ(shape.ratio, (std::array{1.0, 1.5, 2.5}));
    EXPECT_EQ(shape.angle, (std::array{80.0, 95.0, 110.0}));
}

}  // namespace
