// From simulated patterns through reconstruction and search to the refined lattice.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "crystallography/UnitCell.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/latticesearch/PositionRefinement.h"
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
        settings.background.halo = 0.0;
        settings.background.directBeam = 0.0;
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
    vrk::Lattice start(const Eigen::Vector3d& centre) const {
        std::mt19937 random(1);
        std::normal_distribution<double> error(0.0, 0.004);
        vrk::Matrix3 vectors = truth.primitiveVectors;
        for (vrk::Vector3& v : vectors) {
            const double length = std::hypot(v[0], v[1], v[2]);
            for (double& component : v)
                component += length * error(random);
        }
        const UnitCell cell(vectors[0].data(), vectors[1].data(), vectors[2].data(), truth.pixelSize, false,
                            true, LATTICE::aP);
        return vrk::Lattice::of(cell, centre);
    }

    vrk::SimulationTruth truth;
    std::vector<float> tilts;
    std::unique_ptr<VoxMRCData> volume;
    ReflexVectorPtr list;
};

void expectTruth(const vrk::RefinedPositions& result, const vrk::SimulationTruth& truth, double length,
                 double angle) {
    // The sphere lies at g . n = +|g|^2 lambda / 2 for handedness +1, which a found position is below.
    EXPECT_EQ(result.sense, -truth.handedness);
    EXPECT_TRUE(result.decided);
    EXPECT_GT(result.lattice.fraction(), 0.98);
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
        const Eigen::Vector3d centre(127.5, 127.5, 0.5 * (geometry.depth() - 1.0));
        std::vector<double> seen;
        const auto refined = [&](const ReflexVectorPtr& list) {
            std::vector<Eigen::Vector3d> places;
            for (Reflex* reflex : *list)
                places.emplace_back(reflex->getCenterInX(), reflex->getCenterInY(), reflex->getCenterInZ());
            vrk::RefinementSettings settings;
            settings.wavelength = found.truth.wavelength;
            return vrk::refinePositions(places, seen, found.start(centre), settings);
        };
        const auto result =
            refined(ReflexVectorPtr(ReflectionPositions::fromSamples(found.list.get(), geometry, &seen)));
        ASSERT_TRUE(result);
        expectTruth(*result, found.truth, 5e-4, 0.03);

        // At 1.2 per Angstrom, against the true lattice.
        vrk::Lattice truth;
        for (int i = 0; i < 3; ++i)
            truth.basis.col(i) =
                Eigen::Vector3d(found.truth.primitiveVectors[static_cast<std::size_t>(i)].data());
        double along = 0.0;
        int count = 0;
        for (std::size_t i = 0; i < result->positions.size(); ++i) {
            if (result->indices[i][0] == vrk::kNotIndexed) continue;
            const Eigen::Vector3d g = truth.node(result->indices[i]);
            if (std::abs(g.norm() * found.truth.pixelSize * 1e-10 - 1.2) > 0.05) continue;
            const double tilt = std::atan(g.z() / g.x());
            const Eigen::Vector3d off = result->positions[i] - centre - g;
            along += off.z() * std::cos(tilt) - off.x() * std::sin(tilt);
            ++count;
        }
        ASSERT_GT(count, 30);
        EXPECT_LT(std::abs(along / count), 0.3) << "of 1.8 voxels without the correction";

        // The positions of the peaks alone, as a peak file has them, are nearly as good.
        const auto fromPlaces =
            refined(ReflexVectorPtr(ReflectionPositions::fromCenters(found.list.get(), 3, geometry, &seen)));
        ASSERT_TRUE(fromPlaces);
        expectTruth(*fromPlaces, found.truth, 1e-3, 0.06);
    }
}

}  // namespace
