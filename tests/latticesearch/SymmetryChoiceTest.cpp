#include "pipeline/run/SymmetryChoice.h"
#include "support/FailureOf.h"

#include <Eigen/Geometry>

namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;
using vrk::SymmetryChoice;

/// Reflections of a rectangular cell, Angstrom, with 1e8 1/m per voxel.
struct TiltedCrystal {
    explicit TiltedCrystal(const Vector3d& edges) {
        std::mt19937 random(4);
        std::normal_distribution<double> error(0.0, 0.1);
        lattice.basis = Eigen::Quaterniond(0.9, 0.2, -0.3, 0.1).normalized().toRotationMatrix() *
                        (100.0 / edges.array()).matrix().asDiagonal();
        lattice.pixelSize = 1e8;
        forEachIndex(8, 8, 6, [&](int h, int k, int l) {
            const Vector3d p = lattice.node({h, k, l});
            if (p.norm() > 75.0 || std::hypot(p.x(), p.z()) < 4.0) return;
            positions.push_back(p + Vector3d(error(random), error(random), error(random)));
            tilts.push_back(std::atan(p.z() / p.x()));
        });
    }
    vrk::SymmetryInput input() const {
        vrk::SymmetryInput result;
        result.positions = positions;
        result.tilts = tilts;
        result.centre = Vector3d::Zero();
        result.halfWidth = 80.0;
        return result;
    }
    SymmetryChoice choose(const vrk::SymmetryInput& how) const {
        return chooseSymmetry(how, refinePositions(positions, tilts, lattice, {}).value());
    }
    SymmetryChoice choose(std::optional<LATTICE::BravaisTypes> wanted) const {
        vrk::SymmetryInput how = input();
        how.wanted = wanted;
        return choose(how);
    }
    /// As frames with an ellipse along the axis show it.
    void stretch(double ellipse) {
        for (std::size_t i = 0; i < positions.size(); ++i) {
            const double u = positions[i].x() * std::cos(tilts[i]) + positions[i].z() * std::sin(tilts[i]);
            positions[i] = {u * (1 - ellipse) * std::cos(tilts[i]), positions[i].y() * (1 + ellipse),
                            u * (1 - ellipse) * std::sin(tilts[i])};
        }
    }

    vrk::Lattice lattice;
    std::vector<Vector3d> positions;
    std::vector<double> tilts;
};

std::string strainOf(const SymmetryChoice& choice) {
    return strainText(choice.conventional, choice.untied, choice.characters.front().bravaisType);
}

TEST(SymmetryChoice, IndexesFreelyUnderTiesThatAreWanted) {
    const TiltedCrystal crystal({9.0, 9.2, 12.0});
    const SymmetryChoice choice = crystal.choose(LATTICE::tP);
    EXPECT_EQ(choice.characters.front().bravaisType, LATTICE::tP);
    EXPECT_EQ(choice.refined.lattice.indexed, static_cast<int>(crystal.positions.size()));
    EXPECT_NEAR(choice.conventional.cell[0], choice.conventional.cell[1], 1e-9);
    EXPECT_NEAR(choice.conventional.cell[0], 9.1, 0.05);
    const auto [shorter, longer] = std::minmax(choice.untied.cell[0], choice.untied.cell[1]);
    EXPECT_NEAR(shorter, 9.0, 0.01);
    EXPECT_NEAR(longer, 9.2, 0.01);
    const std::string strain = strainOf(choice);
    EXPECT_TRUE(says(strain, {"the ties of tP", "(a 9.", ", b 9."}));
    EXPECT_FALSE(says(strain, ", c "));
    const Refusal refusal = failureOf([&] { crystal.choose(LATTICE::cF); });
    EXPECT_EQ(refusal.kind, vrk::FailureKind::Usage);
    EXPECT_TRUE(refusal.says("it fits tP oP")) << refusal.text;
}

TEST(SymmetryChoice, TellsWhereReflectionsContradictWhatIsKnown) {
    const std::tuple<Vector3d, double, std::string> cases[] = {
        {{9, 9, 9}, 0.01, "as cP they ask for another ellipse by 0.9"},
        {{8, 9, 12}, 0.008, "as oP they ask for another ellipse by 0.7"},
        {{8, 9, 12}, 0.0, ""}};
    for (const auto& [edges, ellipse, expected] : cases) {
        TiltedCrystal crystal(edges);
        crystal.stretch(ellipse);
        vrk::SymmetryInput input = crystal.input();
        input.known = {std::nullopt, 0.0, 0.0, 0.0, 0.0, 0.0};
        const SymmetryChoice choice = crystal.choose(input);
        const std::string text = contradictionText(input, choice);
        EXPECT_TRUE(text.starts_with(expected)) << text;
        EXPECT_EQ(text.empty(), expected.empty()) << text;
        input.known = {};
        EXPECT_EQ(contradictionText(input, choice), "");
    }
}

}  // namespace
