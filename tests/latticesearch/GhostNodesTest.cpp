// Nodes of a finer lattice must come from patterns all over the series.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <functional>
#include <random>

#include "pipeline/base/Angle.h"
#include "pipeline/latticesearch/LatticeScore.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::Points;

/// An orthorhombic lattice whose a* lies along the beam at tilt 0, b* across the axis, c* along it.
Matrix3d upright() {
    Matrix3d basis;
    basis << 0, 10, 0, 0, 0, 8, 12, 0, 0;
    return basis;
}

double tiltOf(const Vector3d& p) {
    return std::atan(p.z() / p.x()) / vrk::kDegree;
}

/// Nodes as tilts of +-60 degrees show them; where `isOff`, by tilt in degrees, half of b* + c* beside their
/// place in the pattern.
Points seen(const Matrix3d& basis, double share, const std::function<bool(double)>& isOff) {
    std::mt19937 random(2);
    std::uniform_real_distribution<double> unit(0, 1);
    std::normal_distribution<double> noise(0, 0.25);
    const Vector3d half = 0.5 * (basis.col(1) + basis.col(2));
    Points points;
    for (int h = -9; h <= 9; ++h)
        for (int k = -11; k <= 11; ++k)
            for (int l = -11; l <= 11; ++l) {
                Vector3d p = basis * Vector3d(h, k, l);
                if (p.norm() > 80 || p.norm() < 5 || std::abs(p.z()) > 1.73 * std::abs(p.x())) continue;
                if (unit(random) > share) continue;
                const double tilt = tiltOf(p) * vrk::kDegree;
                const double along = std::copysign(std::hypot(p.x(), p.z()), p.x());
                if (isOff(tilt / vrk::kDegree))
                    p = Vector3d((along + half.x()) * std::cos(tilt), p.y() + half.y(),
                                 (along + half.x()) * std::sin(tilt));
                points.push_back(p + Vector3d(noise(random), noise(random), noise(random)));
            }
    return points;
}

TEST(GhostNodes, MisplacedPatternsDoNotDoubleACell) {
    const auto never = [](double) { return false; };
    // A centred cell: every node of the coarse lattice and as many in between.
    Matrix3d centred = upright();
    centred.col(2) = 0.5 * (centred.col(1) + centred.col(2));
    Matrix3d tilted = Eigen::AngleAxisd(0.4, Vector3d(1, 1, 1).normalized()) * centred;
    const struct {
        const char* name;
        Points points;
        Matrix3d truth;
    } cases[] = {
        {"no ghosts", seen(upright(), 0.8, never), upright()},
        {"one zone", seen(upright(), 0.8, [](double t) { return std::abs(t) < 1; }), upright()},
        {"a few patterns", seen(upright(), 0.8, [](double t) { return t > 20 && t < 26; }), upright()},
        {"every third stretch of 5 degrees",
         seen(upright(), 0.8, [](double t) { return static_cast<int>(std::floor(t / 5)) % 3 == 0; }),
         upright()},
        {"a centred cell", seen(centred, 0.8, never), centred},
        {"a centred cell that lies askew", seen(tilted, 0.5, never), tilted},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name);
        // From the coarse lattice and from one that is too fine.
        Matrix3d coarse = one.truth, fine = one.truth;
        coarse.col(2) = 2 * one.truth.col(2) - one.truth.col(1);
        fine.col(2) = 0.5 * (one.truth.col(2) + one.truth.col(1));
        for (const Matrix3d& start : {one.truth, coarse, fine}) {
            const bool isTooCoarse = start == coarse && one.truth == upright();
            if (isTooCoarse) continue;  // half of the nodes are as good as any
            const vrk::Lattice found = vrk::settleMultiples(one.points, {start, Vector3d::Zero()});
            EXPECT_TRUE(vrk::sameLattice(found.basis, one.truth, 0.03)) << found.basis;
        }
    }
}

}  // namespace
