#include "pipeline/integration/GeometryRefinement.h"

#include "RandomGeometry.h"
#include "support/SoFar.h"

namespace {

using namespace vrk;
using test::randomGeometry;

constexpr std::array<LATTICE::BravaisTypes, 7> kTypes = {LATTICE::cP, LATTICE::tI, LATTICE::hP, LATTICE::hR,
                                                         LATTICE::oF, LATTICE::mC, LATTICE::aP};

TEST(SeriesGeometryTest, placesPointsWhereTheConventionsPutThem) {
    const SeriesGeometry geometry{.wavelength = 0.025,
                                  .handedness = -1,
                                  .pixelSize = 0.01,
                                  .axisAngle = 30 * kDegree,
                                  .distortion = {},
                                  .frames = {{40 * kDegree, kDegree, 100, 80}}};
    const Eigen::Vector3d g(0.3, -0.2, 0.1);
    const double u = 0.3 * std::cos(40 * kDegree) + 0.1 * std::sin(40 * kDegree);
    const double s = -0.3 * std::sin(40 * kDegree) + 0.1 * std::cos(40 * kDegree) + 0.025 * 0.14 / 2;
    const SpotPlace place = FrameView(geometry, geometry.frames[0]).place(g);
    EXPECT_NEAR(place.x, 100 + (u * std::cos(30 * kDegree) + 0.2 * std::sin(30 * kDegree)) / 0.01, 1e-9);
    EXPECT_NEAR(place.y, 80 + (u * std::sin(30 * kDegree) - 0.2 * std::cos(30 * kDegree)) / 0.01, 1e-9);
    EXPECT_NEAR(place.excitation, s, 1e-12);
    EXPECT_NEAR(place.rate, -u, 1e-12);
}

TEST(SeriesGeometryTest, derivativesAreThoseOfTheDifferences) {
    constexpr double kStep = 1e-6;
    for (const LATTICE::BravaisTypes type : kTypes)
        for (unsigned seed = 1; seed < 4; ++seed) {
            const SeriesGeometry geometry = randomGeometry(type, seed);
            const std::vector<Eigen::Matrix3d> strains = latticeStrains(geometry.reciprocal, type);
            const Eigen::Vector3d hkl(3, -2, 4);
            const std::size_t frame = 13 * seed;
            const auto places = [&](const SeriesGeometry& moved, const FramePose& pose) {
                const SpotPlace place = FrameView(moved, pose).place(moved.reciprocal * hkl);
                return Eigen::Vector3d(place.x, place.y, place.excitation);
            };
            const FrameView::Derivatives d =
                FrameView(geometry, geometry.frames[frame]).derivatives(geometry.reciprocal * hkl, strains);
            for (int column = 0; column < FrameView::Columns; ++column) {
                std::array<Eigen::Vector3d, 2> ends;
                for (const int sign : {1, -1}) {
                    SeriesGeometry changed = geometry;
                    FramePose& pose = changed.frames[frame];
                    if (column == FrameView::CentreX)
                        pose.centreX += sign * kStep;
                    else if (column == FrameView::CentreY)
                        pose.centreY += sign * kStep;
                    else if (column == FrameView::Tilt)
                        pose.tilt += sign * kStep;
                    else
                        changed = moved(geometry, GeometryStep::Unit(column) * sign * kStep);
                    ends[sign > 0 ? 1 : 0] = places(changed, changed.frames[frame]);
                }
                const Eigen::Vector3d difference = (ends[1] - ends[0]) / (2 * kStep);
                EXPECT_LT((difference - d.col(column)).norm(), 1e-6 * (1 + difference.norm()))
                    << LATTICE::shortName(type) << " column " << column;
            }
        }
}

TEST(SeriesGeometryTest, strainsKeepTheTiesAndTiedVectorsObeyThem) {
    const std::array<std::size_t, 7> freedoms = {1, 2, 2, 2, 3, 4, 6};
    for (std::size_t i = 0; i < kTypes.size(); ++i) {
        SeriesGeometry geometry = randomGeometry(kTypes[i], 5);
        ASSERT_EQ(latticeStrains(geometry.reciprocal, kTypes[i]).size(), freedoms[i]);
        GeometryStep step = GeometryStep::Zero();
        step.segment<6>(0) << 0.3, -0.2, 0.1, 0.01, -0.02, 0.015;
        geometry = moved(geometry, step);
        EXPECT_LT((tiedVectors(geometry.reciprocal, kTypes[i]) - geometry.reciprocal).norm(), 1e-12)
            << LATTICE::shortName(kTypes[i]);
    }
}

/// What a series would show: places and counts with noise, without frames.
struct Observations {
    Observations(const SeriesGeometry& truth, const RockingModel& rocking, double pixelNoise) {
        std::mt19937 random(7);
        std::normal_distribution<double> normal;
        std::exponential_distribution<double> strength(1.0 / 3000);
        RockingModel wide = rocking;
        wide.width *= 1.5;
        prediction = predictSpots(truth, wide, {0.9, 1e4, 'P', 256, 256, 5, 8});
        for (const PredictedReflection& reflection : prediction.reflections) {
            const double intensity = strength(random);
            for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
                const PredictedSpot& spot = prediction.spots[reflection.firstSpot + n];
                const FramePose& pose = truth.frames[spot.frame];
                const SpotPlace place = FrameView(truth, pose).place(reflection.g);
                const double share =
                    rocking.share(place.excitation, place.rate, reflection.length, pose.rotation).value;
                const auto variance = static_cast<float>(400 + intensity * share);
                const double sum = intensity * share + std::sqrt(variance) * normal(random);
                measured.push_back({.sum = static_cast<float>(sum), .ground = 400, .variance = variance});
                const auto sigma = static_cast<float>(pixelNoise);
                if (measured.back().sum > 8 * std::sqrt(variance))
                    centroids.push_back({static_cast<std::uint32_t>(measured.size() - 1),
                                         static_cast<float>(place.x + sigma * normal(random)),
                                         static_cast<float>(place.y + sigma * normal(random)), sigma, sigma,
                                         1.2F});
            }
        }
    }

    SpotPrediction prediction;
    std::vector<MeasuredSpot> measured;
    std::vector<SpotCentroid> centroids;
};

SeriesGeometry plainGeometry(LATTICE::BravaisTypes type) {
    SeriesGeometry geometry = randomGeometry(type, 11);
    geometry.axisPitch = 0;
    geometry.distortion = {};
    return geometry;
}

/// Shifts of orientation, cell, axis and centres as a first geometry has them.
SeriesGeometry disturbed(const SeriesGeometry& geometry) {
    GeometryStep step = GeometryStep::Zero();
    step.head<6>() << 0.002, -0.0015, 0.001, 0.0005, -0.0004, 0.0006;
    step(FrameView::AxisAngle) = -0.002;
    SeriesGeometry start = moved(geometry, step);
    for (std::size_t f = 0; f < start.frames.size(); ++f) {
        start.frames[f].centreX += f % 7 == 0 ? 0.8 : -0.2;
        start.frames[f].centreY += f % 5 == 0 ? -0.9 : 0.3;
    }
    return start;
}

TEST(GeometryRefinementTest, findsTheTruthWithinItsUncertainties) {
    RockingModel rocking;
    rocking.width = 0.003;
    double worst = 0;
    SoFar soFar;
    for (const LATTICE::BravaisTypes type : kTypes) {
        const SeriesGeometry truth = plainGeometry(type);
        Observations seen(truth, rocking, 0.08);
        std::erase_if(seen.centroids, [&](const SpotCentroid& one) {
            return seen.prediction.spots[one.spot].frame % 25 == 0;  // they follow their neighbours
        });
        RockingModel first = rocking;
        first.width = 0.0045;
        SeriesGeometry start = disturbed(truth);
        for (FramePose& frame : start.frames)
            frame.centreX += 1.5;
        const GeometryFit fit = refineGeometry(start, first, seen.prediction, seen.measured, seen.centroids);
        const std::array<double, 6> cell = truth.cell();
        for (std::size_t i = 0; i < 6; ++i) {
            const double error = std::abs(fit.cell[i] - cell[i]);
            if (fit.cellSigma[i] > 0)
                worst = std::max(worst, error / fit.cellSigma[i]);
            else
                EXPECT_NEAR(error, 0, 1e-9);
            EXPECT_LT(fit.cellSigma[i], i < 3 ? 2e-4 * cell[i] : 0.01);
        }
        EXPECT_NEAR(fit.geometry.axisAngle, truth.axisAngle, 4 * fit.sigma(FrameView::AxisAngle));
        EXPECT_NEAR(fit.rocking.width, rocking.width, 4 * fit.widthSigma);
        EXPECT_EQ(fit.terms, std::vector<std::string>{}) << LATTICE::shortName(type);
        for (std::size_t f = 0; f < truth.frames.size(); ++f) {
            EXPECT_NEAR(fit.geometry.frames[f].centreX, truth.frames[f].centreX,
                        f % 25 == 0 ? 1.2 : 5 * fit.centreSigma[f]);
            soFar.add(fit.geometry.frames[f].centreX, fit.geometry.frames[f].centreY);
        }
        soFar.addAll(fit.cell);
        soFar.addAllTame(fit.cellSigma);
        soFar.addAllTame(fit.centreSigma);
        soFar.addAllTame(std::array{fit.widthSigma, fit.residual, fit.curveError, fit.tiltResidual});
        soFar.add(fit.scatter, fit.spots, fit.curves, fit.rounds);
    }
    EXPECT_NEAR(soFar.sum(), 239321.760329, 1e-3);
    EXPECT_LT(worst, 3.5);
}

TEST(GeometryRefinementTest, takesUpTheTermsThatAreThereAndNoOthers) {
    using Row = std::tuple<const char*, LATTICE::BravaisTypes, double& (*)(SeriesGeometry&), double,
                           FrameView::Column>;
    using Geometry = SeriesGeometry;
    const std::array<Row, 5> rows = {
        {{"axis pitch", LATTICE::mP, [](Geometry& g) -> double& { return g.axisPitch; }, 0.01,
          FrameView::AxisPitch},
         {"stretch", LATTICE::cI, [](Geometry& g) -> double& { return g.distortion.stretch; }, 0.006,
          FrameView::Stretch},
         {"shear", LATTICE::aP, [](Geometry& g) -> double& { return g.distortion.shear; }, -0.005,
          FrameView::Shear},
         {"radial", LATTICE::oP, [](Geometry& g) -> double& { return g.distortion.radial; }, 0.004,
          FrameView::Radial},
         {"spiral", LATTICE::tP, [](Geometry& g) -> double& { return g.distortion.spiral; }, 0.004,
          FrameView::Spiral}}};
    const auto fitOf = [](const SeriesGeometry& plain, const SeriesGeometry& truth) {
        const Observations seen(truth, {}, 0.05);
        return refineGeometry(disturbed(plain), {}, seen.prediction, seen.measured, seen.centroids);
    };
    for (const auto& [term, type, value, size, column] : rows) {
        const SeriesGeometry plain = plainGeometry(type);
        SeriesGeometry truth = plain;
        value(truth) = size;
        GeometryFit fit = fitOf(plain, truth);
        EXPECT_EQ(fit.terms, std::vector<std::string>{term});
        EXPECT_NEAR(value(fit.geometry), size, 4 * fit.sigma(column)) << term;
    }
    const SeriesGeometry plain = plainGeometry(LATTICE::mP);
    SeriesGeometry truth = plain;
    for (FramePose& frame : truth.frames)
        frame.tilt *= 1.004;
    const GeometryFit fit = fitOf(plain, truth);
    EXPECT_EQ(fit.terms, std::vector<std::string>{"tilt scale"});
    EXPECT_NEAR(fit.geometry.frames.back().tilt / (50 * kDegree), 1.004, 4 * fit.sigma(FrameView::TiltScale));
}

TEST(GeometryRefinementTest, correctsSingleTiltsAndNamesOutliers) {
    const SeriesGeometry plain = plainGeometry(LATTICE::mP);
    SeriesGeometry truth = plain;
    std::mt19937 random(4);
    std::normal_distribution<double> error(0, 0.1 * kDegree);
    for (FramePose& frame : truth.frames)
        frame.tilt += error(random);
    const RockingModel rocking;
    Observations seen(truth, rocking, 0.05);
    seen.centroids[40].x += 1.0F;
    const GeometryFit fit = refineGeometry(plain, rocking, seen.prediction, seen.measured, seen.centroids);
    ASSERT_FALSE(fit.terms.empty());
    EXPECT_EQ(fit.terms.back(), "tilts");
    Eigen::ArrayXd off(std::ssize(truth.frames));
    for (std::size_t f = 0; f < truth.frames.size(); ++f)
        off[static_cast<Eigen::Index>(f)] = (fit.geometry.frames[f].tilt - truth.frames[f].tilt) / kDegree;
    // A common offset is a turn of the crystal.
    EXPECT_LT(std::sqrt((off - off.mean()).square().mean()), 0.02);
    SoFar soFar;
    soFar.addAll(fit.tiltSigma);
    soFar.addAll(fit.cell);
    EXPECT_NEAR(soFar.sum(), 242.053408, 1e-5);
    ASSERT_EQ(fit.outliers.size(), 1U);
    EXPECT_EQ(fit.outliers[0].spot, seen.centroids[40].spot);
    EXPECT_NEAR(fit.outliers[0].dx, 1.0, 0.2);
}

TEST(GeometryRefinementTest, leavesTheStartWhenThereIsTooLittle) {
    const SeriesGeometry start = plainGeometry(LATTICE::aP);
    const Observations seen(start, {}, 0.05);
    const GeometryFit fit =
        refineGeometry(start, {}, seen.prediction, seen.measured, std::span(seen.centroids).first(11));
    EXPECT_EQ(fit.spots, 0);
    EXPECT_EQ(fit.geometry.reciprocal, start.reciprocal);
}

}  // namespace
