#include "pipeline/latticesearch/PositionRefinement.h"

#include "support/RecordedReflections.h"
#include "support/SoFar.h"

namespace {

constexpr double kPerVoxel = vrk::test::kPixelSize * 1e-10;  // 1/Angstrom
const double kWavelength = EwaldCurvature::wavelength(200.0);
const std::array<double, 6> kCell = {5.1, 6.2, 8.3, 88.0, 95.0, 103.0};

/// Reflections where a sphere that is bent so much shows them.
vrk::test::Recorded curved(double bend, double noise) {
    return {kCell, {}, {.noise = noise, .seed = 4, .share = 1.0, .bend = bend}};
}

/// A start as the search for the cell leaves it.
vrk::Lattice startOf(const Mat3& truth, double error) {
    Mat3 basis = truth;
    basis[0][0] += error * 20.0;
    basis[1][2] -= error * 15.0;
    basis[2][1] += error * 10.0;
    return vrk::Lattice::of(reciprocalCell(basis, vrk::test::kPixelSize),
                            Eigen::Vector3d(255.5, 255.5, 220.5));
}

vrk::RefinementSettings at(double wavelength) {
    vrk::RefinementSettings settings;
    settings.wavelength = wavelength;
    return settings;
}

TEST(PositionRefinement, FindsTheSenseAndTheLattice) {
    SoFar soFar;
    for (const int sense : {+1, -1}) {
        auto data = curved(sense, 0.25);
        data.positions.emplace_back(255.5, 100.0, 220.5);  // on the axis
        data.positions.emplace_back(std::nan(""), 100.0, 220.5);
        data.tilts.insert(data.tilts.end(), {0.0, 0.0});
        const auto result =
            vrk::refinePositions(data.positions, data.tilts, startOf(data.truth, 0.004), at(kWavelength));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->sense, sense);
        EXPECT_TRUE(result->decided);
        EXPECT_LT(result->residual[sense > 0 ? 0 : 1], 0.6);
        EXPECT_GT(result->residual[sense > 0 ? 1 : 0], 1.0);
        EXPECT_GT(result->lattice.fraction(), 0.99);
        expectCell(result->lattice.cell, kCell, 3e-4, 0.02);
        EXPECT_LT((result->lattice.lattice.origin - data.centre).cwiseAbs().maxCoeff(), 0.1);
        ASSERT_EQ(result->positions.size(), data.positions.size());
        EXPECT_EQ(result->indices[5], data.indices[5]);
        EXPECT_EQ(result->indices.back()[0], vrk::kNotIndexed);

        // At 1.05 per Angstrom the mean displacement along the normal is gone.
        double along = 0.0;
        int count = 0;
        for (std::size_t i = 0; i < data.nodes.size(); ++i) {
            if (std::abs(data.nodes[i].norm() * kPerVoxel - 1.05) > 0.05) continue;
            const Eigen::Vector3d off = result->positions[i] - data.centre - data.nodes[i];
            along += -off.x() * std::sin(data.tilts[i]) + off.z() * std::cos(data.tilts[i]);
            ++count;
        }
        ASSERT_GT(count, 100);
        EXPECT_LT(std::abs(along / count), 0.05) << "uncorrected it is 2.8";
        soFar.addAll(result->residual);
        soFar.addAll(result->lattice.cell);
        soFar.add(result->significance, result->lattice.rms);
        for (std::size_t i = 0; i < data.nodes.size(); ++i)
            soFar.addAll(Eigen::Vector3d(result->positions[i] - data.positions[i]));
    }
    EXPECT_NEAR(soFar.sum(), 864.812622, 1e-4);
}

TEST(PositionRefinement, AdmitsThatFlatDataTellNoSense) {
    // Curvature a tenth of the noise: at this wavelength no step exceeds 0.04 voxels.
    const auto data = curved(0.01, 0.4);
    const vrk::Lattice start = startOf(data.truth, 0.001);
    auto result = vrk::refinePositions(data.positions, data.tilts, start, at(0.01 * kWavelength));
    ASSERT_TRUE(result);
    EXPECT_FALSE(result->decided);
    EXPECT_NEAR(result->residual[0], result->residual[1], 0.01);

    for (const auto& [pixelSize, wavelength] : {std::pair(start.pixelSize, 0.0), {0.0, kWavelength}}) {
        const vrk::Lattice from{start.basis, start.origin, pixelSize};
        result = vrk::refinePositions(data.positions, data.tilts, from, at(wavelength));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->sense, 0);
        EXPECT_EQ(result->significance, 0);
        EXPECT_FALSE(result->decided);
        EXPECT_EQ(result->positions[0], data.positions[0]);
    }
}

TEST(PositionRefinement, RefusesWhatCannotBeRefined) {
    const auto data = curved(+1, 0.2);
    const vrk::Lattice start = startOf(data.truth, 0.0);
    const std::vector<double> tooFew(3, 0.0);
    EXPECT_FALSE(vrk::refinePositions(data.positions, tooFew, start, at(0.025)));
    EXPECT_FALSE(vrk::refinePositions({}, {}, start, at(0.025)));
    for (const double tolerance : {0.0, 0.6, std::nan("")}) {
        vrk::RefinementSettings settings = at(0.025);
        settings.tolerance = tolerance;
        EXPECT_FALSE(vrk::refinePositions(data.positions, data.tilts, start, settings)) << tolerance;
    }
    vrk::Lattice flat = start;
    flat.basis.col(1) = flat.basis.col(0);
    EXPECT_FALSE(vrk::refinePositions(data.positions, data.tilts, flat, at(0.025)));
    std::vector<Eigen::Vector3d> plane = data.positions;
    for (Eigen::Vector3d& place : plane)
        place = start.node({static_cast<int>(place.x()) % 7, static_cast<int>(place.y()) % 5, 0});
    EXPECT_FALSE(vrk::refinePositions(plane, data.tilts, start, at(0.0)));
}

}  // namespace
