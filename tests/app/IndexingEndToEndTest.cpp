// From simulated patterns through reconstruction and search to the refined lattice.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "crystallography/UnitCell.h"
#include "indexing/PositionRefinement.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/simulation/Simulation.h"
#include "processing/SamplingGeometry.h"
#include "processing/VoxMRCstemProcessing.h"
#include "reflections/FindReflexes.h"
#include "reflections/ReflexVector.h"

namespace {

/// Reflections found in the volume of a simulated crystal.
struct FoundReflections {
    explicit FoundReflections(int handedness) {
        vrk::SimulationSettings settings;
        settings.cell = {7.1, 9.2, 12.3, 88.0, 95.0, 103.0};
        settings.detector.size = 256;
        settings.detector.background = 0.0;
        settings.detector.directBeam = 0.0;
        settings.handedness = handedness;
        for (int tilt = -60; tilt <= 60; ++tilt)
            settings.tilts.push_back(tilt);
        vrk::SimulatedSeries simulated = vrk::simulateSeries(settings);
        truth = simulated.truth;
        tilts.assign(truth.tilts.begin(), truth.tilts.end());
        VoxMRCstemProcessing processing;
        volume.reset(processing.recoByAngle(simulated.series.get(), 0.0, 0, true));
        Parameter parameter;
        parameter.setThreshold(15.0);
        parameter.setMinDistToZeroBeam(5.0);
        list.reset(FindReflexes().findAllReflexes(volume.get(), &parameter, true, nullptr));
    }

    /// The true cell with vectors that are wrong by some 0.4 %.
    UnitCell start() const {
        std::mt19937 random(1);
        std::normal_distribution<double> error(0.0, 0.004);
        vrk::Matrix3 vectors = truth.primitiveVectors;
        for (vrk::Vector3& v : vectors) {
            const double length = std::hypot(v[0], v[1], v[2]);
            for (double& component : v)
                component += length * error(random);
        }
        return UnitCell(vectors[0].data(), vectors[1].data(), vectors[2].data(), truth.pixelSize, false, true,
                        LATTICE::aP);
    }

    vrk::SimulationTruth truth;
    std::vector<float> tilts;
    std::unique_ptr<VoxMRCData> volume;
    ReflexVectorPtr list;
};

void expectTruth(const PositionRefinement::Result& result, const vrk::SimulationTruth& truth, double length,
                 double angle) {
    // The sphere lies at g . n = +|g|^2 lambda / 2 for handedness +1, which a found position is below.
    EXPECT_EQ(result.sense, -truth.handedness);
    EXPECT_TRUE(result.decided);
    EXPECT_GT(result.lattice.indexed, 0.98 * result.lattice.reflections);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(result.lattice.cell[i] / truth.primitiveCell[i], 1.0, length);
        EXPECT_NEAR(result.lattice.cell[i + 3], truth.primitiveCell[i + 3], angle);
    }
}

TEST(IndexingEndToEndTest, ExactPositionsGiveTheTrueCellAndTheSense) {
    for (const int handedness : {+1, -1}) {
        const FoundReflections found(handedness);
        ASSERT_TRUE(found.list);
        ASSERT_GT(found.list->size(), 1500u);
        const SamplingGeometry geometry(256, found.tilts, SamplingGeometry::depthOf(256, found.tilts));
        const double centre[3] = {127.5, 127.5, 0.5 * (geometry.depth() - 1.0)};
        PositionRefinement refinement;
        refinement.setWavelength(found.truth.wavelength);
        UnitCell cell = found.start();
        double origin[3] = {centre[0], centre[1], centre[2]};
        const ReflexVectorPtr corrected(refinement.refine(found.list.get(), geometry, &cell, origin));
        ASSERT_TRUE(corrected);
        expectTruth(refinement.result(), found.truth, 5e-4, 0.03);

        // At 1.2 per Angstrom, against the true lattice.
        const auto& basis = found.truth.primitiveVectors;
        double along = 0.0;
        int count = 0;
        for (Reflex* reflex : *corrected) {
            if (!reflex->isIndicated()) continue;
            vrk::Vector3 g{};
            for (std::size_t i = 0; i < 3; ++i)
                g[i] = reflex->getH() * basis[0][i] + reflex->getK() * basis[1][i] +
                       reflex->getL() * basis[2][i];
            const double inverseSpacing = std::hypot(g[0], g[1], g[2]) * found.truth.pixelSize * 1e-10;
            if (std::abs(inverseSpacing - 1.2) > 0.05) continue;
            const double tilt = std::atan(g[2] / g[0]);
            along += (reflex->getCenterInZ() - centre[2] - g[2]) * std::cos(tilt) -
                     (reflex->getCenterInX() - centre[0] - g[0]) * std::sin(tilt);
            ++count;
        }
        ASSERT_GT(count, 30);
        EXPECT_LT(std::abs(along / count), 0.3) << "of 1.8 voxels without the correction";

        // The positions of the peaks alone, as a peak file has them, are nearly as good.
        std::vector<double> seen;
        const ReflexVectorPtr places(ReflectionPositions::fromCenters(found.list.get(), 3, geometry, &seen));
        cell = found.start();
        std::copy(centre, centre + 3, origin);
        const ReflexVectorPtr fromPlaces(refinement.refine(places.get(), seen, &cell, origin));
        ASSERT_TRUE(fromPlaces);
        expectTruth(refinement.result(), found.truth, 1e-3, 0.06);
    }
}

}  // namespace
