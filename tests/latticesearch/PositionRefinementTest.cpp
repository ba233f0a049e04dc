#include "pipeline/latticesearch/PositionRefinement.h"

#include "indexing/EwaldCurvature.h"
#include "support/SimulatedReflections.h"
#include "support/SoFar.h"

namespace {

constexpr double kRefinedPixelSize = 5.0e7;
constexpr double kPerVoxel = kRefinedPixelSize * 1e-10;  // 1/Angstrom
const std::array<double, 6> kCell = {5.1, 6.2, 8.3, 88.0, 95.0, 103.0};

/// Reflections where a crystal's patterns show them: each node where the sphere crosses it, laid into the
/// plane of its pattern.
struct CurvedPositions {
    CurvedPositions(int sense, double wavelength, double noise, unsigned seed = 4)
        : truth(reciprocalVectors(directCellOf(kCell, seed, kRefinedPixelSize))) {
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
            found.emplace_back(origin[0] + g[0] + step * std::sin(tilt) + noise * normal(random),
                               origin[1] + g[1] + noise * normal(random),
                               origin[2] + g[2] - step * std::cos(tilt) + noise * normal(random));
            tilts.push_back(tilt);
            places.emplace_back(g.data());
            indices.push_back({h, k, l});
        });
    }

    Mat3 truth;
    Eigen::Vector3d origin = {255.9, 255.3, 220.6};
    std::vector<Eigen::Vector3d> found;
    std::vector<double> tilts;
    std::vector<Eigen::Vector3d> places;  ///< where each really lies relative to the origin
    std::vector<vrk::Indices> indices;
};

/// A start as the search for the cell leaves it.
vrk::Lattice startOf(const Mat3& truth, double error) {
    Mat3 basis = truth;
    basis[0][0] += error * 20.0;
    basis[1][2] -= error * 15.0;
    basis[2][1] += error * 10.0;
    return vrk::Lattice::of(reciprocalCell(basis, kRefinedPixelSize), Eigen::Vector3d(255.5, 255.5, 220.5));
}

vrk::RefinementSettings at(double wavelength) {
    vrk::RefinementSettings settings;
    settings.wavelength = wavelength;
    return settings;
}

TEST(PositionRefinement, FindsTheSenseAndTheLattice) {
    SoFar soFar;
    for (const int sense : {+1, -1}) {
        const CurvedPositions data(sense, EwaldCurvature::wavelength(200.0), 0.25);
        const auto result = vrk::refinePositions(data.found, data.tilts, startOf(data.truth, 0.004),
                                                 at(EwaldCurvature::wavelength(200.0)));
        ASSERT_TRUE(result);
        EXPECT_EQ(result->sense, sense);
        EXPECT_TRUE(result->decided);
        EXPECT_LT(result->residual[sense > 0 ? 0 : 1], 0.6);
        EXPECT_GT(result->residual[sense > 0 ? 1 : 0], 1.0);
        EXPECT_GT(result->lattice.fraction(), 0.99);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_NEAR(result->lattice.cell[i], kCell[i], 3e-4 * kCell[i]);
            EXPECT_NEAR(result->lattice.cell[i + 3], kCell[i + 3], 0.02);
            EXPECT_NEAR(result->lattice.lattice.origin[static_cast<Eigen::Index>(i)],
                        data.origin[static_cast<Eigen::Index>(i)], 0.1);
        }
        ASSERT_EQ(result->positions.size(), data.found.size());
        EXPECT_EQ(result->indices[5], data.indices[5]);

        // At 1.2 per Angstrom the mean displacement along the normal is gone.
        double along = 0.0;
        int count = 0;
        for (std::size_t i = 0; i < data.places.size(); ++i) {
            if (std::abs(data.places[i].norm() * kPerVoxel - 1.2) > 0.05) continue;
            const Eigen::Vector3d off = result->positions[i] - data.origin - data.places[i];
            along += -off.x() * std::sin(data.tilts[i]) + off.z() * std::cos(data.tilts[i]);
            ++count;
        }
        ASSERT_GT(count, 100);
        EXPECT_LT(std::abs(along / count), 0.05) << "uncorrected it is 3.6";
        soFar.addAll(result->residual);
        soFar.addAll(result->lattice.cell);
        soFar.add(result->significance, result->lattice.rms);
        for (std::size_t i = 0; i < data.found.size(); ++i)
            soFar.addAll(Eigen::Vector3d(result->positions[i] - data.found[i]));
    }
    EXPECT_NEAR(soFar.sum(), 1160.76313, 1e-4);
}

TEST(PositionRefinement, AdmitsThatFlatDataTellNoSense) {
    // Curvature a tenth of the noise: at this wavelength no step exceeds 0.04 voxels.
    const CurvedPositions data(+1, 2.5e-4, 0.4);
    const vrk::Lattice start = startOf(data.truth, 0.001);
    auto result = vrk::refinePositions(data.found, data.tilts, start, at(2.5e-4));
    ASSERT_TRUE(result);
    EXPECT_FALSE(result->decided);
    EXPECT_NEAR(result->residual[0], result->residual[1], 0.01);

    result = vrk::refinePositions(data.found, data.tilts, start, at(0.0));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->sense, 0);
    EXPECT_FALSE(result->decided);
    EXPECT_EQ(result->positions[0], data.found[0]);
}

TEST(PositionRefinement, LeavesWhatHasNoPlaceUnindexed) {
    CurvedPositions data(-1, EwaldCurvature::wavelength(200.0), 0.2);
    data.found.emplace_back(255.5, 100.0, 220.5);  // on the axis
    data.found.emplace_back(std::nan(""), 100.0, 220.5);
    data.tilts.insert(data.tilts.end(), {0.0, 0.0});
    const auto result = vrk::refinePositions(data.found, data.tilts, startOf(data.truth, 0.002),
                                             at(EwaldCurvature::wavelength(200.0)));
    ASSERT_TRUE(result);
    EXPECT_EQ(result->sense, -1);
    EXPECT_NEAR(result->lattice.cell[2], kCell[2], 3e-4 * kCell[2]);
    EXPECT_EQ(result->indices.back()[0], vrk::kNotIndexed);
}

TEST(PositionRefinement, RefusesWhatCannotBeRefined) {
    const CurvedPositions data(+1, 0.025, 0.2);
    const vrk::Lattice start = startOf(data.truth, 0.0);
    const std::vector<double> tooFew(3, 0.0);
    EXPECT_FALSE(vrk::refinePositions(data.found, tooFew, start, at(0.025)));
    EXPECT_FALSE(vrk::refinePositions({}, {}, start, at(0.025)));
    for (const double tolerance : {0.0, 0.6, std::nan("")}) {
        vrk::RefinementSettings settings = at(0.025);
        settings.tolerance = tolerance;
        EXPECT_FALSE(vrk::refinePositions(data.found, data.tilts, start, settings)) << tolerance;
    }
    vrk::Lattice flat = start;
    flat.basis.col(1) = flat.basis.col(0);
    EXPECT_FALSE(vrk::refinePositions(data.found, data.tilts, flat, at(0.025)));
    std::vector<Eigen::Vector3d> plane = data.found;
    for (Eigen::Vector3d& place : plane)
        place = start.node({static_cast<int>(place.x()) % 7, static_cast<int>(place.y()) % 5, 0});
    EXPECT_FALSE(vrk::refinePositions(plane, data.tilts, start, at(0.0)));
}

}  // namespace
