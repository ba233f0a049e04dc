#include "pipeline/geometry/CentreRefinement.h"

#include "pipeline/base/Angle.h"

#include <Eigen/Geometry>

#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using Eigen::Vector3d;
using vrk::CentreShift;
using vrk::Lattice;

struct Series {
    Lattice lattice;
    Vector3d centre{100, 110, 90};
    std::vector<double> patterns;  ///< degrees
    std::vector<Vector3d> positions;
    std::vector<double> tilts;
};

/// Reflections of an orthorhombic lattice in 41 patterns, each of which may lie off its centre.
Series seriesWith(const std::function<Eigen::Vector2d(std::size_t)>& shiftOf) {
    Series series;
    series.lattice.basis = Eigen::AngleAxisd(0.4, Vector3d(1, 2, 3).normalized()).toRotationMatrix() *
                           Vector3d(9, 13, 16).asDiagonal();
    for (int tilt = -60; tilt <= 60; tilt += 3)
        series.patterns.push_back(tilt);
    std::mt19937 random(4);
    std::normal_distribution<double> noise(0, 0.25);
    forEachIndex(8, 8, 8, [&](int h, int k, int l) {
        const Vector3d node = series.lattice.basis * Vector3d(h, k, l);
        const double tilt = node.x() == 0 ? 0 : std::atan(node.z() / node.x());
        if ((!h && !k && !l) || std::abs(tilt) > 60 * vrk::kDegree || node.norm() > 95) return;
        const auto pattern = static_cast<std::size_t>(std::lround((tilt / vrk::kDegree + 60) / 3));
        const Eigen::Vector2d shift = shiftOf(pattern);
        series.positions.push_back(series.centre + node + shift.y() * Vector3d::UnitY() +
                                   shift.x() * Vector3d(std::cos(tilt), 0, std::sin(tilt)) +
                                   Vector3d(noise(random), noise(random), noise(random)));
        series.tilts.push_back(tilt);
    });
    return series;
}

}  // namespace

TEST(CentreRefinement, PutsPatternsRightAndLeavesTheOthers) {
    const Series plain = seriesWith([](std::size_t) { return Eigen::Vector2d::Zero(); });
    // Half a base vector as the pattern at -30 degrees shows it.
    const Vector3d half = 0.5 * plain.lattice.basis.col(2);
    const double tilt = -30 * vrk::kDegree;
    const Eigen::Vector2d fraction(half.x() * std::cos(tilt) + half.z() * std::sin(tilt), half.y());
    const auto truth = [&](std::size_t pattern) -> Eigen::Vector2d {
        if (pattern == 5) return {0.8, -0.5};
        if (pattern == 25) return {0.0, 1.1};
        if (pattern == 10) return fraction + Eigen::Vector2d(0.1, 0.0);
        return {0.02, 0.0};
    };
    Series series = seriesWith(truth);
    series.positions.push_back(Vector3d::Constant(std::numeric_limits<double>::quiet_NaN()));
    series.tilts.push_back(0.1);
    const auto shifts =
        vrk::refineCentres(series.positions, series.tilts, series.lattice, series.centre, series.patterns);
    ASSERT_EQ(shifts.size(), series.patterns.size());
    SoFar soFar;
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        const bool off = i == 5 || i == 10 || i == 25;
        EXPECT_EQ(shifts[i].applies, off) << i << ": " << shifts[i].across << ' ' << shifts[i].along;
        EXPECT_EQ(shifts[i].isFraction, i == 10) << i;
        soFar.add(shifts[i].across, shifts[i].along, shifts[i].sigma, shifts[i].reflections);
        if (shifts[i].reflections < 10) continue;
        EXPECT_NEAR(shifts[i].across, truth(i).x(), std::max(5 * shifts[i].sigma, 0.05)) << i;
        EXPECT_NEAR(shifts[i].along, truth(i).y(), std::max(5 * shifts[i].sigma, 0.05)) << i;
    }
    EXPECT_NEAR(soFar.sum(), 1196.04302, 1e-4);
}

TEST(CentreRefinement, SaysNothingWithoutReflections) {
    const Series series = seriesWith([](std::size_t) { return Eigen::Vector2d::Zero(); });
    const auto none = [](const std::vector<CentreShift>& shifts) {
        return std::none_of(shifts.begin(), shifts.end(), [](const CentreShift& s) { return s.applies; });
    };
    EXPECT_TRUE(none(vrk::refineCentres({}, {}, series.lattice, series.centre, series.patterns)));
    EXPECT_TRUE(none(vrk::refineCentres(series.positions, std::span(series.tilts).first(3), series.lattice,
                                        series.centre, series.patterns)));
    EXPECT_TRUE(none(vrk::refineCentres(series.positions, series.tilts, Lattice{Eigen::Matrix3d::Zero(), {}},
                                        series.centre, series.patterns)));
    EXPECT_TRUE(
        vrk::refineCentres(series.positions, series.tilts, series.lattice, series.centre, {}).empty());
}
