#include "indexing/PositionRefinement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "indexing/EwaldCurvature.h"
#include "indexing/ReflectionPositions.h"
#include "indexing/SimulatedReflections.h"
#include "support/RecordingLogObserver.h"

namespace {

constexpr double kPixelSize = 5.0e7;
constexpr double kPerVoxel = kPixelSize * 1e-10;  // 1/Angstrom
const std::array<double, 6> kCell = {5.1, 6.2, 8.3, 88.0, 95.0, 103.0};

/// Reflections where a crystal's patterns show them: each node where the sphere crosses it, laid into the
/// plane of its pattern.
struct CurvedPositions {
    CurvedPositions(int sense, double wavelength, double noise, unsigned seed = 4)
        : truth(reciprocalVectors(directCellOf(kCell, seed, kPixelSize))) {
        std::mt19937 random(seed);
        std::normal_distribution<double> normal(0.0, 1.0);
        forEachNode(truth, 1.25 / kPerVoxel, [&](int h, int k, int l, const Vec3& g) {
            // g . n = -sense |g|^2 lambda / 2, n = (-sin t, 0, cos t); the plane's point is g - n (g . n).
            const double length2 = g[0] * g[0] + g[1] * g[1] + g[2] * g[2];
            const double step = -sense * 0.5 * length2 * wavelength * kPerVoxel;
            const double fromAxis = std::hypot(g[0], g[2]);
            if (fromAxis <= std::abs(step)) return;
            // Of the two tilts half a turn apart in effect, the one within the series' range.
            double tilt = std::atan2(g[2], g[0]) - std::asin(step / fromAxis);
            if (std::cos(tilt) < 0.0) tilt = std::atan2(g[2], g[0]) - M_PI + std::asin(step / fromAxis);
            tilt = std::remainder(tilt, 2.0 * M_PI);
            if (std::abs(tilt) > 60.0 / 180.0 * M_PI) return;
            list->push_back(new Reflex(origin[0] + g[0] + step * std::sin(tilt) + noise * normal(random),
                                       origin[1] + g[1] + noise * normal(random),
                                       origin[2] + g[2] - step * std::cos(tilt) + noise * normal(random)));
            list->back()->setIntensity(h * h + k * k + l * l);
            tilts.push_back(tilt);
            places.push_back(g);
        });
    }

    Mat3 truth;
    Vec3 origin = {255.9, 255.3, 220.6};
    ReflexVectorPtr list{new ReflexVector};
    std::vector<double> tilts;
    std::vector<Vec3> places;  ///< where each really lies relative to the origin
};

/// A start as the search for the cell leaves it.
UnitCell startOf(const Mat3& truth, double error) {
    Mat3 basis = truth;
    basis[0][0] += error * 20.0;
    basis[1][2] -= error * 15.0;
    basis[2][1] += error * 10.0;
    return reciprocalCell(basis, kPixelSize);
}

TEST(EwaldCurvatureTest, KnowsWavelengthAndStep) {
    // Tables of electron wavelengths, in Angstrom.
    EXPECT_NEAR(EwaldCurvature::wavelength(100.0), 0.037014, 1e-6);
    EXPECT_NEAR(EwaldCurvature::wavelength(200.0), 0.025079, 1e-6);
    EXPECT_NEAR(EwaldCurvature::wavelength(300.0), 0.019687, 1e-6);
    EXPECT_EQ(EwaldCurvature::wavelength(0.0), 0.0);
    for (const double kiloVolts : {1.0, 80.0, 200.0, 300.0})
        EXPECT_NEAR(EwaldCurvature::kiloVolts(EwaldCurvature::wavelength(kiloVolts)), kiloVolts, 1e-10);
    EXPECT_EQ(EwaldCurvature::kiloVolts(0.0), 0.0);
    const EwaldCurvature curvature(0.02508, kPixelSize);
    const double far[3] = {0.0, 240.0, 0.0};  // 1.2 per Angstrom
    EXPECT_NEAR(curvature.step(far), 1.2 * 1.2 * 0.02508 / 2.0 / kPerVoxel, 1e-9);
    const double onAxis[3] = {0.0, 7.0, 0.0};
    EXPECT_EQ(EwaldCurvature::tiltOf(onAxis), 0.0);
}

TEST(PositionRefinementTest, FindsTheSenseAndTheLattice) {
    for (const int sense : {+1, -1}) {
        CurvedPositions data(sense, EwaldCurvature::wavelength(200.0), 0.25);
        UnitCell cell = startOf(data.truth, 0.004);
        double origin[3] = {255.5, 255.5, 220.5};
        PositionRefinement refinement;
        refinement.setWavelength(EwaldCurvature::wavelength(200.0));
        const ReflexVectorPtr corrected(refinement.refine(data.list.get(), data.tilts, &cell, origin));
        ASSERT_NE(corrected, nullptr);
        const PositionRefinement::Result& result = refinement.result();
        EXPECT_EQ(result.sense, sense);
        EXPECT_TRUE(result.decided);
        EXPECT_LT(result.residual[sense > 0 ? 0 : 1], 0.6);
        EXPECT_GT(result.residual[sense > 0 ? 1 : 0], 1.0);
        EXPECT_GT(result.lattice.indexed, 0.99 * static_cast<double>(data.list->size()));
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(result.lattice.cell[i], kCell[i], 3e-4 * kCell[i]);
            EXPECT_NEAR(result.lattice.cell[i + 3], kCell[i + 3], 0.02);
            EXPECT_NEAR(origin[i], data.origin[i], 0.1);
        }
        ASSERT_EQ(corrected->size(), data.list->size());
        EXPECT_EQ((*corrected)[5]->getIntensity(), (*data.list)[5]->getIntensity());

        // At 1.2 per Angstrom the mean displacement along the normal is gone.
        double along = 0.0;
        int count = 0;
        for (std::size_t i = 0; i < corrected->size(); ++i) {
            const Vec3& g = data.places[i];
            if (std::abs(std::hypot(g[0], g[1], g[2]) * kPerVoxel - 1.2) > 0.05) continue;
            const double dx = (*corrected)[i]->getCenterInX() - data.origin[0] - g[0];
            const double dz = (*corrected)[i]->getCenterInZ() - data.origin[2] - g[2];
            along += -dx * std::sin(data.tilts[i]) + dz * std::cos(data.tilts[i]);
            ++count;
        }
        ASSERT_GT(count, 100);
        EXPECT_LT(std::abs(along / count), 0.05) << "uncorrected it is 3.6";
    }
}

TEST(PositionRefinementTest, AdmitsThatFlatDataTellNoSense) {
    // Curvature a tenth of the noise: at this wavelength no step exceeds 0.04 voxels.
    CurvedPositions data(+1, 2.5e-4, 0.4);
    UnitCell cell = startOf(data.truth, 0.001);
    double origin[3] = {255.5, 255.5, 220.5};
    PositionRefinement refinement;
    refinement.setWavelength(2.5e-4);
    ReflexVectorPtr corrected(refinement.refine(data.list.get(), data.tilts, &cell, origin));
    ASSERT_NE(corrected, nullptr);
    EXPECT_FALSE(refinement.result().decided);
    EXPECT_NEAR(refinement.result().residual[0], refinement.result().residual[1], 0.01);

    refinement.setWavelength(0.0);
    corrected.reset(refinement.refine(data.list.get(), data.tilts, &cell, origin));
    ASSERT_NE(corrected, nullptr);
    EXPECT_EQ(refinement.result().sense, 0);
    EXPECT_FALSE(refinement.result().decided);
    EXPECT_EQ((*corrected)[0]->getCenterInX(), (*data.list)[0]->getCenterInX());
}

TEST(PositionRefinementTest, TakesPositionsWithoutTilts) {
    CurvedPositions data(-1, EwaldCurvature::wavelength(200.0), 0.2);
    const double centre[3] = {255.5, 255.5, 220.5};
    std::vector<double> tilts;
    data.list->push_back(new Reflex(255.5, 100.0, 220.5));  // on the axis
    data.list->push_back(new Reflex(std::nan(""), 100.0, 220.5));
    const ReflexVectorPtr places(ReflectionPositions::copies(data.list.get(), 3, centre, &tilts));
    UnitCell cell = startOf(data.truth, 0.002);
    double origin[3] = {255.5, 255.5, 220.5};
    PositionRefinement refinement;
    refinement.setWavelength(EwaldCurvature::wavelength(200.0));
    const ReflexVectorPtr corrected(refinement.refine(places.get(), tilts, &cell, origin));
    ASSERT_NE(corrected, nullptr);
    EXPECT_EQ(refinement.result().sense, -1);
    EXPECT_NEAR(refinement.result().lattice.cell[2], kCell[2], 3e-4 * kCell[2]);
    EXPECT_FALSE(corrected->back()->isIndicated());
}

TEST(PositionRefinementTest, RefusesWhatDoesNotFitTogether) {
    RecordingLogObserver log;
    CurvedPositions data(+1, 0.025, 0.2);
    UnitCell cell = startOf(data.truth, 0.0);
    double origin[3] = {0, 0, 0};
    PositionRefinement refinement;
    const std::vector<double> tooFew(3, 0.0);
    EXPECT_EQ(refinement.refine(data.list.get(), tooFew, &cell, origin), nullptr);
    EXPECT_EQ(refinement.refine(nullptr, tooFew, &cell, origin), nullptr);
    EXPECT_EQ(refinement.refine(data.list.get(), data.tilts, nullptr, origin), nullptr);
    EXPECT_EQ(log.count("The positions could not be refined", VRK::Error), 3);
}

}  // namespace
