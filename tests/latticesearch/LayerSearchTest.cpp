#include "pipeline/latticesearch/LayerSearch.h"

#include <Eigen/LU>

#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

/// Nodes of a lattice around the origin, off by some noise, among points that lie anywhere.
vrk::Points pointsOf(const Eigen::Matrix3d& basis, double noise, int strays, std::mt19937& random) {
    std::normal_distribution<double> off;
    std::uniform_real_distribution<double> anywhere(-60.0, 60.0);
    vrk::Points points;
    for (int i = 0; i < 400; ++i) {
        const Eigen::Vector3d place(anywhere(random), anywhere(random), anywhere(random));
        const Eigen::Vector3d node = basis * Eigen::Vector3d((basis.inverse() * place).array().round());
        const Eigen::Vector3d away = noise * Eigen::Vector3d(off(random), off(random), 0.0);
        points.push_back(i < strays ? place : Eigen::Vector3d(node + away));
    }
    return points;
}

}  // namespace

TEST(LayerSearchTest, FindsTheLatticeInItsLayersAndRows) {
    std::mt19937 random(5);
    std::uniform_real_distribution<double> part(-0.3, 0.3);
    SoFar soFar;
    int right = 0;
    for (const double noise : {0.0, 0.3})
        for (const double spacing : {3.1, 14.0})
            for (const int strays : {0, 250}) {
                Eigen::Matrix3d basis = Eigen::Vector3d(11.0, 17.0, spacing).asDiagonal();
                basis.col(2) += Eigen::Vector3d(part(random) * 11.0, part(random) * 17.0, 0.0);
                const vrk::Points points = pointsOf(basis, noise, strays, random);
                const auto look = [&](const std::vector<Eigen::Matrix3d>& found) {
                    double nearest = 1e9;
                    for (const Eigen::Matrix3d& one : found) {
                        soFar.addAll(one.reshaped());
                        const Eigen::Matrix3d whole = (one.inverse() * basis).array().round();
                        if (std::abs(std::abs(whole.determinant()) - 1.0) < 1e-9)
                            nearest = std::min(nearest, (one * whole - basis).norm());
                    }
                    right += nearest < 0.5;
                };
                look(vrk::basesFromLayers(points, basis.col(0), basis.col(1)));
                for (int third = 0; third < 3; ++third)
                    look(vrk::basesFromRows(points, {basis, Eigen::Vector3d::Zero()}, third));
            }
    EXPECT_GE(right, 20) << "of 32";
    EXPECT_NEAR(soFar.sum(), 2764.7325852, 1e-6);
}
