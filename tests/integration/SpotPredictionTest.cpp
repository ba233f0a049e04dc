#include "pipeline/integration/SpotPrediction.h"

#include "RandomGeometry.h"

namespace {

using namespace vrk;
using test::randomGeometry;

TEST(RockingModelTest, sharesAreMeansOverTheFrame) {
    constexpr int kSteps = 20000;
    for (const RotationMode mode :
         {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
        for (const double excitation : {-0.006, -0.002, 0.0, 0.0011, 0.0047}) {
            const RockingModel model{mode, 0.002, 0.0015, 0.6 * kDegree};
            const double rate = 0.45, length = 0.8, rotation = 0.9 * kDegree;
            const double w = std::sqrt(0.002 * 0.002 + std::pow(0.0015 * length, 2));
            double mean = 0;
            for (int i = 0; i < kSteps; ++i) {
                const double at = (i + 0.5) / kSteps;
                double s = excitation;
                if (mode == RotationMode::Continuous) s += (at - 0.5) * rate * rotation;
                if (mode == RotationMode::Precession)
                    s += length * model.precession * std::cos(2 * std::numbers::pi * at);
                mean += 0.002 / w * std::exp(-s * s / (2 * w * w)) / kSteps;
            }
            const RockingModel::Share share = model.share(excitation, rate, length, rotation);
            EXPECT_NEAR(share.value, mean, 1e-7);

            const auto check = [&](double derivative, double byShift, double byWidth, double byMosaicity) {
                const auto value = [&](double h) {
                    return RockingModel{mode, 0.002 + h * byWidth, 0.0015 + h * byMosaicity, model.precession}
                        .share(excitation + h * byShift, rate, length, rotation)
                        .value;
                };
                EXPECT_NEAR(derivative, (value(1e-7) - value(-1e-7)) / 2e-7,
                            1e-5 * std::abs(derivative) + 1e-3);
            };
            check(share.byShift, 1, 0, 0);
            check(share.byWidth, 0, 1, 0);
            check(share.byMosaicity, 0, 0, 1);
        }
}

/// Every reflection on every frame, without a thought on where it could be.
std::map<std::tuple<int, int, int, std::uint32_t>, double> plainPrediction(const SeriesGeometry& geometry,
                                                                           const RockingModel& rocking,
                                                                           const PredictionLimits& limits) {
    std::map<std::tuple<int, int, int, std::uint32_t>, double> shares;
    forEachIndex(16, 16, 16, [&](int h, int k, int l) {
        const Eigen::Vector3d g = geometry.reciprocal * Eigen::Vector3d(h, k, l);
        if ((h == 0 && k == 0 && l == 0) || g.norm() > 1 / limits.dMin || (h + k + l) % 2 != 0) return;
        for (std::uint32_t f = 0; f < geometry.frames.size(); ++f) {
            const FramePose& pose = geometry.frames[f];
            const SpotPlace place = FrameView(geometry, pose).place(g);
            const double share = rocking.share(place.excitation, place.rate, g.norm(), pose.rotation).value;
            const bool inside = place.x >= limits.border && place.x <= 255 - limits.border &&
                                place.y >= limits.border && place.y <= 255 - limits.border;
            const double fromBeam = std::hypot(place.x - pose.centreX, place.y - pose.centreY);
            if (share > 0.02 && inside && fromBeam >= limits.beamRadius) shares[{h, k, l, f}] = share;
        }
    });
    return shares;
}

TEST(SpotPredictionTest, findsWhatAPlainSearchFinds) {
    for (const RotationMode mode :
         {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
        for (unsigned seed = 1; seed < 4; ++seed) {
            SeriesGeometry geometry = randomGeometry(LATTICE::mC, seed);
            geometry.frames.erase(geometry.frames.begin() + 30, geometry.frames.begin() + 35);
            const RockingModel rocking{mode, 0.003, 0.002, 0.8 * kDegree};
            const PredictionLimits limits = {1.0, 1e4, 'I', 256, 256, 4, 6};
            auto expected = plainPrediction(geometry, rocking, limits);
            const SpotPrediction prediction = predictSpots(geometry, rocking, limits);
            for (const PredictedReflection& reflection : prediction.reflections) {
                double covered = 0;
                for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
                    const PredictedSpot& spot = prediction.spots[reflection.firstSpot + n];
                    covered += rocking.coverage(spot.share, spot.rate, geometry.frames[spot.frame].rotation);
                    const auto found = expected.find({reflection.h, reflection.k, reflection.l, spot.frame});
                    if (found == expected.end()) {
                        EXPECT_LE(spot.share, 0.02F);
                        continue;
                    }
                    EXPECT_NEAR(spot.share, found->second, 1e-5);
                    expected.erase(found);
                }
                EXPECT_NEAR(reflection.coverage, covered, 1e-5 * (1 + covered));
            }
            EXPECT_TRUE(expected.empty()) << expected.size() << " spots not predicted";
            for (std::size_t f = 0; f < geometry.frames.size(); ++f)
                for (std::uint32_t n = prediction.frameStart[f]; n < prediction.frameStart[f + 1]; ++n)
                    ASSERT_EQ(prediction.spots[prediction.byFrame[n]].frame, f);
            EXPECT_EQ(prediction.byFrame.size(), prediction.spots.size());
        }
}

TEST(SpotPredictionTest, curvesWithinASeriesWithoutGapsAreCovered) {
    SeriesGeometry geometry = randomGeometry(LATTICE::oP, 3);
    const SpotPrediction prediction = predictSpots(geometry, {}, {1.0, 1e4, 'P', 256, 256, 0, 0});
    int inside = 0;
    for (const PredictedReflection& reflection : prediction.reflections) {
        // Near the axis a reflection stays on its curve for long.
        if (reflection.lorentz > 3 || std::abs(reflection.tilt) > 48 * kDegree || reflection.length < 0.2)
            continue;
        EXPECT_NEAR(reflection.coverage, 1, 0.02);
        ++inside;
    }
    EXPECT_GT(inside, 500);
}

TEST(SpotPredictionTest, flagsWhatRunsAlongTheSphere) {
    SeriesGeometry geometry;
    geometry.reciprocal = Eigen::Matrix3d::Identity() * 0.1;
    geometry.frames = {{-0.02, 0.02, 100, 100}, {0, 0.02, 100, 100}, {0.02, 0.02, 100, 100}};
    const SpotPrediction prediction = predictSpots(geometry, {}, {1.2, 1e4, 'P', 400, 400, 0, 0});
    int blind = 0;
    for (const PredictedReflection& reflection : prediction.reflections) {
        const double away = std::hypot(reflection.h, reflection.l);
        const double offset = geometry.wavelength / 2 * reflection.length * reflection.length / 0.1;
        const bool slow = away <= offset || std::sqrt(away * away - offset * offset) <
                                                reflection.length / (0.1 * kBlindLorentz);
        EXPECT_EQ(reflection.blind, slow) << reflection.h << ' ' << reflection.k << ' ' << reflection.l;
        blind += reflection.blind ? 1 : 0;
    }
    EXPECT_GT(blind, 4);
}

}  // namespace
