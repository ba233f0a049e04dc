#include "pipeline/geometry/CurvatureScale.h"

#include "support/RecordedReflections.h"
#include "support/SoFar.h"

namespace {

using vrk::test::Distortion;

/// What the sphere says of a pixel size that is so many times the true one.
vrk::CurvatureScale seenWith(double stated, const Distortion& distortion, double reach) {
    vrk::test::Recorded data({7.3, 9.1, 11.9, 81.0, 95.0, 104.0}, distortion, {.noise = 0.35, .seed = 5});
    const double wavelength = EwaldCurvature::wavelength(200.0);
    const EwaldCurvature curvature(wavelength, stated * vrk::test::kPixelSize);
    vrk::Lattice lattice;
    for (Eigen::Index i = 0; i < 3; ++i)
        lattice.basis.col(i) = Eigen::Vector3d(data.truth[static_cast<std::size_t>(i)].data());
    lattice.origin = data.centre;
    std::vector<Eigen::Vector3d> places;
    std::vector<double> tilts;
    for (std::size_t i = 0; i < data.positions.size(); ++i) {
        if ((data.positions[i] - data.centre).norm() > reach) continue;
        places.push_back(data.positions[i]);
        tilts.push_back(data.tilts[i]);
        curvature.correct(places.back().data(), data.centre.data(), tilts.back(), 1, places.back().data());
    }
    const double none = std::nan("");
    places.insert(places.end(), {{none, 1, 2}, {50, 60, 70}});
    tilts.insert(tilts.end(), {0.1, none});
    return vrk::CurvatureScale::of(places, tilts, lattice,
                                   0.5e-10 * wavelength * stated * vrk::test::kPixelSize, 0.25);
}

TEST(CurvatureScale, TellsThePixelSize) {
    const std::tuple<double, Distortion, bool> cases[] = {
        {1.0, {}, false},
        {1.03, {}, false},
        {1.12, {}, true},
        {0.7, {}, true},
        {1.5, {.ellipse = 0.01}, true},
        // The lens, the axis and the tilts are no reason to doubt it.
        {1.0, {.ellipse = 0.008, .azimuth = 70.0, .radial = 0.006}, false},
        {1.0, {.axisTurn = 0.4, .tiltScale = 1.01, .axisTilt = 0.5}, false},
    };
    SoFar soFar;
    for (const auto& [stated, distortion, contradicts] : cases) {
        const vrk::CurvatureScale found = seenWith(stated, distortion, 220.0);
        EXPECT_EQ(found.contradicts(), contradicts) << stated << ": " << found.factor;
        EXPECT_NEAR(found.factor, 1.0 / stated, 3.0 * found.sigma) << stated;
        soFar.add(found.factor, found.sigma);
    }
    EXPECT_NEAR(soFar.sum(), 7.56210234, 1e-7);
    EXPECT_FALSE(seenWith(1.5, {}, 30.0).contradicts()) << "too few to tell";
}

}  // namespace
