#include "pipeline/latticesearch/Confidence.h"

#include <Eigen/Geometry>

#include "pipeline/latticesearch/RecordedWedge.h"
#include "support/SoFar.h"
#include "support/Testing.h"

namespace {

using vrk::Completeness;
using vrk::Confidence;
using vrk::LatticeEvidence;

/// Evidence that leaves no doubt.
LatticeEvidence sound() {
    LatticeEvidence known;
    known.score = {.points = 100, .indexed = 90, .radius = 1, .chance = 0.02, .evidence = 400};
    known.rivalEvidence = 100;
    known.indexedShare = 0.95;
    Completeness nodes;
    nodes.shells.fill({40, 32});
    nodes.parities.fill({50, 40});
    nodes.all = nodes.core = {400, 320};
    known.completeness = nodes;
    return known;
}

TEST(Confidence, EachDoubtLowersItAndIsNamed) {
    using enum Confidence;
    using Known = LatticeEvidence;
    const auto shells = [](int found) {
        return [found](Known& e) { e.completeness->shells.fill({40, found}); };
    };
    const auto parity = [](int nodes, int found) {
        return [=](Known& e) { e.completeness->parities[3] = {nodes, found}; };
    };
    const auto residual = [](double share) {
        return [share](Known& e) { std::tie(e.residual, e.relativeResidual) = std::pair(1.6, share); };
    };
    const struct {
        const char* reason;
        std::function<void(LatticeEvidence&)> change;
        Confidence level;
        std::optional<Confidence> lattice = {};  ///< where it is not the level
    } cases[] = {
        {"", [](LatticeEvidence&) {}, High},
        {"",
         [](Known& e) {
             std::tie(e.score.evidence, e.score.indexed, e.indexedShare) = std::tuple(300, 60, 0.8);
             e.completeness->shells.fill({40, 18});
         },
         High},
        {"few reflections", [](Known& e) { e.score.evidence = 299; }, Fair},
        {"few reflections", [](Known& e) { e.score.evidence = 119; }, Low},
        {"59 % of the reflections lie near", [](Known& e) { e.score.indexed = 59; }, Fair},
        {"39 % of the reflections lie near", [](Known& e) { e.score.indexed = 39; }, Low},
        {"79 % of the reflections are indexed", [](Known& e) { e.indexedShare = 0.79; }, Fair},
        {"49 % of the reflections are indexed", [](Known& e) { e.indexedShare = 0.49; }, Low},
        {"were found where most were", shells(17), Fair},
        {"were found where most were", shells(9), Low},
        {"classes of nodes", parity(50, 20), Fair},
        {"classes of nodes", parity(50, 7), Low},
        {"", parity(24, 0), High},
        {"another lattice has 91 %", [](Known& e) { e.rivalEvidence = 0.91 * e.score.evidence; }, Fair},
        {"assumed", [](Known& e) { e.axisAssumed = true; }, Fair},
        {"in part", [](Known& e) { e.tiedUncertainty = 0.006; }, Fair},
        {"'vrk calibrate'", [](Known& e) { e.ellipseUnknown = true; }, Low, Fair},
        {"unless the frames are distorted by 0.7 %", [](Known& e) { e.ellipseUnproven = 0.007; }, Fair},
        {"", [](Known& e) { e.ellipseUnproven = 0.005; }, High},
        {"symmetry may be lower", [](Known& e) { e.tiesStrain = true; }, Fair},
        {"nodes of a lattice of type oP", [](Known& e) { e.higherType = "oP"; }, Fair},
        {"end at 5.1 Angstrom", [](Known& e) { e.finestSpacing = 5.1; }, Fair},
        {"", [](Known& e) { e.finestSpacing = 4.9; }, High},
        {"1.09 times the pixel size, which makes all edges shorter", [](Known& e) { e.pixelFactor = 1.09; },
         Fair},
        {"contradict", [](Known& e) { e.instrumentContradicted = true; }, Fair},
        {"narrow a range", [](Known& e) { e.thinness = 0.19; }, Fair},
        {"", [](Known& e) { e.thinness = 0.21; }, High},
        {"not known which part", [](Known& e) { e.completeness.reset(); }, Fair},
        {"positions alone", [](Known& e) { e.distortionUnseen = true; }, Low},
        {"reflections alone tell", [](Known& e) { e.spaceEstimated = true; }, Fair},
        {"", [](Known& e) { e.indexedShare.reset(); }, High},
        {"another lattice (4 5 6) has 95 %",
         [](Known& e) {
             e.rivalEvidence = 0.95 * e.score.evidence;
             e.rival = "4 5 6";
         },
         Fair},
        {"far off its nodes", residual(0.13), Low},
        {"", residual(0.11), High},
        {"determine its edges", [](Known& e) { e.edgeUncertainty = 0.0021; }, Low},
        {"distorted by 3 %", [](Known& e) { e.ellipse = 0.026; }, Fair},
        {"10 % smaller than stated", [](Known& e) { e.tiltScale = -0.1; }, Fair},
        // Half of the reflections are another crystal's.
        {"",
         [](Known& e) {
             e.score.indexed = 45;
             e.indexedShare = 0.5;
             e.elsewhere = 0.5;
         },
         High},
    };
    for (const auto& one : cases) {
        LatticeEvidence known = sound();
        one.change(known);
        const vrk::Verdict verdict = vrk::verdictOn(known);
        EXPECT_EQ(verdict.level, one.level) << one.reason;
        EXPECT_EQ(verdict.lattice, one.lattice.value_or(one.level)) << one.reason;
        ASSERT_EQ(verdict.reasons.size(), *one.reason ? 1U : 0U) << one.reason;
        if (*one.reason) {
            EXPECT_TRUE(says(verdict.reasons[0], one.reason));
        }
    }
}

TEST(Confidence, ThreeDoubtsAreTooMany) {
    LatticeEvidence guessed = sound();
    guessed.spaceEstimated = guessed.ellipseUnknown = true;
    EXPECT_EQ(vrk::verdictOn(guessed).lattice, Confidence::Low) << "neither axis nor distortion is known";
    LatticeEvidence known = sound();
    known.axisAssumed = true;
    known.thinness = 0.1;
    EXPECT_EQ(vrk::verdictOn(known).level, Confidence::Fair);
    known.rivalEvidence = known.score.evidence;
    const vrk::Verdict verdict = vrk::verdictOn(known);
    EXPECT_EQ(verdict.level, Confidence::Low);
    EXPECT_EQ(verdict.reasons.size(), 3U);
}

TEST(Confidence, ThinnessFollowsTheTilts) {
    std::vector<Eigen::Vector3d> places;
    for (int tilt = -10; tilt <= 10; ++tilt)
        for (double u : {-100.0, 50.0})
            for (double v : {-60.0, 60.0})
                places.push_back(
                    {u * std::cos(tilt * M_PI / 180) + 7, v + 8, u * std::sin(tilt * M_PI / 180) + 9});
    EXPECT_NEAR(vrk::thinnessOf(places, {7, 8, 9}), 0.105, 0.003);
    places.resize(2);
    EXPECT_EQ(vrk::thinnessOf(places, {7, 8, 9}), 1);
}

TEST(Confidence, ChanceConvincesNobody) {
    EXPECT_TRUE(vrk::isConvincing({.points = 100, .indexed = 16, .evidence = 61}));
    EXPECT_FALSE(vrk::isConvincing({.points = 100, .indexed = 14, .evidence = 61}));
    EXPECT_FALSE(vrk::isConvincing({.points = 100, .indexed = 90, .evidence = 59}));
}

/// Of a simple cubic lattice of ten voxels, in which the indices that are asked for were found.
Completeness completeness(const std::function<bool(const vrk::Indices&)>& isFound, int tiltLast = 60) {
    vrk::Lattice lattice;
    lattice.basis = 10 * Eigen::Matrix3d::Identity();
    lattice.pixelSize = 5e7;
    std::vector<vrk::Indices> found = {{vrk::kNotIndexed, vrk::kNotIndexed, vrk::kNotIndexed}};
    vrk::RecordedSpace space{
        .tiltFirst = -60 * M_PI / 180, .tiltLast = tiltLast * M_PI / 180, .halfWidth = 128, .zeroBeam = 15};
    forEachIndex(9, 9, 9, [&](int h, int k, int l) {
        const Eigen::Vector3d place(10 * h, 10 * k, 10 * l);
        if (place.norm() > 90 || std::isnan(space.tiltOf(place, 5e7)) || !isFound({h, k, l})) return;
        found.insert(found.end(), 2, {h, k, l});
    });
    return vrk::completenessOf(lattice, found, space);
}

TEST(RecordedWedge, IsFoundFromTheReflections) {
    std::mt19937 random(8);
    std::normal_distribution<double> normal;
    const auto turned = [&] {
        const Eigen::Quaterniond turn(normal(random), normal(random), normal(random), normal(random));
        return turn.normalized().toRotationMatrix();
    };
    const double quarter = M_PI / 2;
    SoFar soFar;
    for (const auto& [halfAngle, tolerance] :
         {std::pair(60 * M_PI / 180, 0.06), {10 * M_PI / 180, 0.06}, {quarter, 1e-9}})
        for (int turn = 0; turn < 2; ++turn) {
            const Eigen::Matrix3d rotation = turned();
            const Eigen::Matrix3d basis = turned() * Eigen::Vector3d(9, 13, 11).asDiagonal();
            std::vector<Eigen::Vector3d> places = {rotation * Eigen::Vector3d(3, 5, 90)};
            forEachIndex(9, 9, 9, [&, most = halfAngle](int h, int k, int l) {
                const Eigen::Vector3d place = basis * Eigen::Vector3d(h, k, l);
                const double tilt = std::atan(place.z() / place.x());
                if (place.norm() > 0 && place.norm() < 90 && std::abs(tilt) < most)
                    places.push_back(rotation * place);
            });
            const vrk::RecordedWedge wedge = vrk::wedgeOf(places);
            EXPECT_NEAR(wedge.halfAngle, halfAngle, tolerance);
            soFar.add(wedge.halfAngle);
            soFar.addAll(wedge.toFrame.reshaped());
            EXPECT_EQ(vrk::wedgeOf(std::span(places).first(30)).halfAngle, quarter) << "by chance";
            if (halfAngle == quarter) continue;
            // The middle of the wedge and the axis are x and y, but for their senses.
            const Eigen::Matrix3d back = wedge.toFrame * rotation;
            EXPECT_GT(std::abs(back(0, 0)), 0.99);
            EXPECT_GT(std::abs(back(1, 1)), 0.99);
            EXPECT_NEAR(wedge.toFrame.determinant(), 1, 1e-9);
        }
    EXPECT_NEAR(soFar.sum(), 16.8726389, 1e-6);
}

TEST(Completeness, CountsTheNodesThatWereRecorded) {
    const Completeness whole = completeness([](const vrk::Indices&) { return true; });
    EXPECT_GT(whole.all.nodes, 1500) << "two thirds of 3053 nodes in the sphere";
    EXPECT_EQ(whole.all.share(), 1);
    EXPECT_EQ(whole.bestShell(), 1);
    EXPECT_EQ(whole.evenness(), 1);
    EXPECT_NEAR(whole.limit, 90, 3);
    EXPECT_NEAR(whole.halfRadius, whole.limit, 1e-9);
    // A third of the wedge has a third of the nodes: those outside are not missing.
    const Completeness narrow = completeness([](const vrk::Indices&) { return true; }, -20);
    EXPECT_NEAR(narrow.all.nodes, whole.all.nodes / 3.0, 0.1 * whole.all.nodes);
    EXPECT_EQ(narrow.all.share(), 1);
}

TEST(Completeness, KnowsEmptyClassesAndShells) {
    const Completeness doubled = completeness([](const vrk::Indices& hkl) { return hkl[2] % 2 == 0; });
    EXPECT_NEAR(doubled.all.share(), 0.5, 0.05);
    EXPECT_EQ(completeness([](const vrk::Indices&) { return false; }).limit, 0);
    EXPECT_EQ(doubled.evenness(), 0);
    const Completeness weak = completeness([](const vrk::Indices& hkl) {
        return hkl[2] % 2 == 0 || (std::abs(hkl[0]) / 2 + std::abs(hkl[1]) / 2) % 2 == 0;
    });
    EXPECT_NEAR(weak.evenness(), 0.5, 0.1);
    // Beyond half the radius one in seven is found: that is no lack of the core's.
    const Completeness fading = completeness([](const vrk::Indices& hkl) {
        return hkl[0] * hkl[0] + hkl[1] * hkl[1] + hkl[2] * hkl[2] < 36 || (hkl[0] + 2 * hkl[1]) % 7 == 0;
    });
    EXPECT_GT(fading.core.share(), 0.9);
    EXPECT_NEAR(fading.halfRadius, 60, 6);
    SoFar soFar;
    for (const Completeness& one : {doubled, weak, fading}) {
        soFar.add(one.limit, one.halfRadius, one.bestShell(), one.evenness(), one.core.nodes, one.core.found);
        for (const auto& shell : one.shells)
            soFar.add(shell.nodes, shell.found);
        for (const auto& parity : one.parities)
            soFar.add(parity.nodes, parity.found);
    }
    EXPECT_NEAR(soFar.sum(), 24112.2486, 1e-3);
}

}  // namespace
