#include "pipeline/run/SymmetryChoice.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <random>

#include "pipeline/base/Failure.h"

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::SymmetryChoice;

/// Reflections of a rectangular cell, Angstrom, with 1e8 1/m per voxel.
struct Crystal {
    explicit Crystal(const Vector3d& edges) {
        std::mt19937 random(4);
        std::normal_distribution<double> error(0.0, 0.1);
        lattice.basis = Eigen::Quaterniond(0.9, 0.2, -0.3, 0.1).normalized().toRotationMatrix() *
                        (100.0 / edges.array()).matrix().asDiagonal();
        lattice.pixelSize = 1e8;
        for (int h = -8; h <= 8; ++h)
            for (int k = -8; k <= 8; ++k)
                for (int l = -6; l <= 6; ++l) {
                    const Vector3d p = lattice.node({h, k, l});
                    if (p.norm() > 75.0 || std::hypot(p.x(), p.z()) < 4.0) continue;
                    positions.push_back(p + Vector3d(error(random), error(random), error(random)));
                    tilts.push_back(std::atan(p.z() / p.x()));
                }
    }
    SymmetryChoice choose(std::optional<LATTICE::BravaisTypes> wanted) const {
        vrk::SymmetryInput input;
        input.positions = positions;
        input.tilts = tilts;
        input.centre = Vector3d::Zero();
        input.halfWidth = 80.0;
        input.wanted = wanted;
        return chooseSymmetry(input, refinePositions(positions, tilts, lattice, {}).value());
    }

    vrk::Lattice lattice;
    std::vector<Vector3d> positions;
    std::vector<double> tilts;
};

std::string strainOf(const SymmetryChoice& choice) {
    return strainText(choice.conventional, choice.untied, choice.characters.front().bravaisType);
}

TEST(SymmetryChoice, TakesTheHighestTypeThatCostsNothing) {
    const struct {
        Vector3d edges;
        LATTICE::BravaisTypes type;
    } cases[] = {{{9, 9, 12}, LATTICE::tP}, {{9, 9.2, 12}, LATTICE::oP}, {{9, 9, 9}, LATTICE::cP}};
    for (const auto& one : cases) {
        const SymmetryChoice choice = Crystal(one.edges).choose(std::nullopt);
        EXPECT_EQ(choice.characters.front().bravaisType, one.type);
        EXPECT_EQ(strainOf(choice), "");
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(choice.conventional.cell[i], one.edges[static_cast<Eigen::Index>(i)], 0.01);
    }
}

TEST(SymmetryChoice, IndexesFreelyUnderTiesThatAreWanted) {
    const Crystal crystal({9.0, 9.2, 12.0});
    const SymmetryChoice choice = crystal.choose(LATTICE::tP);
    EXPECT_EQ(choice.characters.front().bravaisType, LATTICE::tP);
    EXPECT_EQ(choice.refined.lattice.indexed, static_cast<int>(crystal.positions.size()));
    EXPECT_NEAR(choice.conventional.cell[0], choice.conventional.cell[1], 1e-9);
    EXPECT_NEAR(choice.conventional.cell[0], 9.1, 0.05);
    const auto [shorter, longer] = std::minmax(choice.untied.cell[0], choice.untied.cell[1]);
    EXPECT_NEAR(shorter, 9.0, 0.01);
    EXPECT_NEAR(longer, 9.2, 0.01);
    const std::string strain = strainOf(choice);
    EXPECT_NE(strain.find("the ties of tP"), std::string::npos) << strain;
    EXPECT_NE(strain.find("(a 9."), std::string::npos) << strain;
    EXPECT_NE(strain.find(", b 9."), std::string::npos) << strain;
    EXPECT_EQ(strain.find(", c "), std::string::npos) << strain;
    try {
        crystal.choose(LATTICE::cF);
        FAIL();
    } catch (const vrk::Failure& failure) {
        EXPECT_EQ(failure.kind(), vrk::FailureKind::Usage);
        EXPECT_NE(std::string(failure.what()).find("it fits tP oP"), std::string::npos) << failure.what();
    }
}

}  // namespace
