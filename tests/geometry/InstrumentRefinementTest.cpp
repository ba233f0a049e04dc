#include "pipeline/geometry/InstrumentRefinement.h"

#include "support/RecordedReflections.h"
#include "support/SoFar.h"

namespace {

using vrk::kDegree;
using vrk::test::Distortion;

struct Recorded : vrk::test::Recorded {
    using vrk::test::Recorded::Recorded;
    Recorded(const std::array<double, 6>& cell, const Distortion& distortion, double noise, unsigned seed)
        : Recorded(cell, distortion, {.noise = noise, .seed = seed}) {}

    vrk::RefinedInstrument refined(const vrk::CellTies& ties, const vrk::KnownTerms& known = {},
                                   bool allTerms = false) const {
        vrk::InstrumentSettings settings;
        settings.halfWidth = vrk::test::kHalfWidth;
        settings.wavelength = EwaldCurvature::wavelength(200.0);
        settings.sense = 1;
        settings.ties = ties;
        settings.known = known;
        settings.allTerms = allTerms;
        return vrk::refineInstrument(positions, tilts,
                                     vrk::Lattice::of(reciprocalCell(truth, vrk::test::kPixelSize), centre),
                                     centre, settings);
    }
};

void addTo(SoFar& soFar, const vrk::RefinedInstrument& found) {
    for (std::size_t term = 0; term < vrk::kInstrumentTerms; ++term)
        soFar.addTame(found.model[static_cast<vrk::InstrumentTerm>(term)]);
    soFar.addAllTame(found.sigma);
    soFar.addAllTame(found.correlation);
    soFar.addAll(found.lattice.cell);
    soFar.addAllTame(found.lattice.cellSigma);
    soFar.addAllTame(std::array{found.axisTurnSigma, found.axisSigma, found.rmsBefore});
    soFar.add(found.lattice.rms, found.lattice.indexed);
}

void expectSum(double sum, const std::vector<vrk::RefinedInstrument>& found) {
    SoFar soFar;
    for (const vrk::RefinedInstrument& one : found)
        addTo(soFar, one);
    EXPECT_NEAR(soFar.sum(), sum, 1e-4);
}

const std::array<double, 6> kTriclinic = {6.3, 8.1, 9.9, 82.0, 97.0, 104.0};
const std::array<double, 6> kCubic = {8.2, 8.2, 8.2, 90.0, 90.0, 90.0};

TEST(InstrumentRefinement, RecoversWhatTheDataDetermine) {
    using enum vrk::InstrumentTerm;
    const std::tuple<const char*, LATTICE::BravaisTypes, Distortion, vrk::InstrumentTerm, double, double>
        cases[] = {
            {"axis, triclinic", LATTICE::aP, {.axisTurn = 2.5}, AxisTurn, 2.5 * kDegree, 0.02 * kDegree},
            {"axis, cubic", LATTICE::cP, {.axisTurn = -0.6}, AxisTurn, -0.6 * kDegree, 0.02 * kDegree},
            {"radial", LATTICE::aP, {.radial = 0.01}, Radial, 0.01, 1.5e-3},
            {"tilt scale", LATTICE::aP, {.tiltScale = 1.02}, TiltScale, 0.02, 5e-4},
            {"axis tilt", LATTICE::aP, {.axisTilt = 1.5}, AxisTilt, 1.5 * kDegree, 0.05 * kDegree},
            {"ellipse along", LATTICE::cP, {.ellipse = 0.01, .azimuth = 0.0}, EllipseCosine, 0.01, 3e-4},
            {"ellipse across", LATTICE::cP, {.ellipse = 0.01, .azimuth = 45.0}, EllipseSine, 0.01, 3e-4},
        };
    unsigned seed = 3;
    SoFar soFar;
    for (const auto& [name, type, distortion, term, value, within] : cases) {
        SCOPED_TRACE(name);
        const auto& cell = type == LATTICE::aP ? kTriclinic : kCubic;
        const Recorded data(cell, distortion, 0.35, seed++);
        const vrk::RefinedInstrument found =
            data.refined(vrk::CellTies::of(type, Eigen::Matrix3d::Identity()));
        ASSERT_TRUE(found.valid);
        ASSERT_TRUE(found.uses(term));
        const double off = std::abs(found.model[term] - value);
        EXPECT_LT(off, within) << found.model[term];
        EXPECT_LT(off, 4.0 * found.sigma[static_cast<std::size_t>(term)]);
        expectCell(found.lattice.cell, cell, 1e-3, 0.03);
        addTo(soFar, found);
    }
    EXPECT_NEAR(soFar.sum(), 5617.57051806, 1e-4);
}

TEST(InstrumentRefinement, AllTermsAtOnce) {
    const Distortion distortion{
        .axisTurn = 0.8, .ellipse = 0.012, .azimuth = 30.0, .radial = 0.004, .tiltScale = 0.985};
    // More reflections than a fit takes.
    const Recorded data({13, 13, 13, 90, 90, 90}, distortion, {.noise = 0.35, .seed = 21, .share = 0.9});
    const vrk::RefinedInstrument found =
        data.refined(vrk::CellTies::of(LATTICE::cP, Eigen::Matrix3d::Identity()));
    ASSERT_TRUE(found.valid);
    EXPECT_NEAR(found.model[vrk::InstrumentTerm::AxisTurn], 0.8 * kDegree, 0.04 * kDegree);
    EXPECT_NEAR(found.ellipse(), 0.012, 5e-4);
    EXPECT_NEAR(found.ellipseAzimuth(), 30.0, 2.0);
    EXPECT_NEAR(found.model[vrk::InstrumentTerm::TiltScale], -0.015, 1e-3);
    EXPECT_NEAR(found.lattice.cell[0], 13, 0.006);
    expectSum(6033.95192931, {found});
}

TEST(InstrumentRefinement, KnownShapesTellAnEllipseOfAnyCrystalAndKnownTermsStay) {
    using enum vrk::InstrumentTerm;
    const Recorded stretched(kTriclinic, {.ellipse = 0.014, .azimuth = 20.0, .tiltScale = 1.01}, 0.4, 8);
    // Whatever the scale of the cell is called.
    std::array<double, 6> cell = kTriclinic;
    for (std::size_t i = 0; i < 3; ++i)
        cell[i] *= 1.1;
    const vrk::CellTies shape = vrk::CellTies::ofShape(cell, Eigen::Matrix3d::Identity());
    const vrk::RefinedInstrument found = stretched.refined(shape, {}, true);
    EXPECT_NEAR(found.ellipse(), 0.014, 3e-4);
    EXPECT_NEAR(found.ellipseAzimuth(), 20.0, 1.0);
    EXPECT_NEAR(found.model[TiltScale], 0.01, 5e-4);
    EXPECT_NEAR(found.lattice.cell[1], kTriclinic[1], 1e-3 * kTriclinic[1]);
    EXPECT_TRUE(found.uses(Radial)) << "nothing there, but determined";
    EXPECT_NEAR(found.model[Radial], 0.0, 4.0 * found.sigma[3]);
    for (std::size_t i = 0; i < vrk::kInstrumentTerms; ++i) {
        const auto n = static_cast<Eigen::Index>(i);
        EXPECT_NEAR(std::sqrt(found.covariance(n, n)), found.sigma[i], 1e-9) << i;
    }

    vrk::KnownTerms known;
    for (const vrk::InstrumentTerm term : {EllipseCosine, EllipseSine, TiltScale})
        known[static_cast<std::size_t>(term)] = found.model[term];
    const vrk::RefinedInstrument kept = stretched.refined({}, known);
    for (const vrk::InstrumentTerm term : {EllipseCosine, EllipseSine, TiltScale}) {
        EXPECT_EQ(kept.model[term], found.model[term]);
        EXPECT_FALSE(kept.uses(term));
    }
    const vrk::RefinedInstrument unaware = stretched.refined({});
    expectCell(kept.lattice.cell, kTriclinic, 5e-4, 0.05);
    expectSum(2174.49169818, {found, kept, unaware});
    // An ellipse that nobody knows turns the axis.
    EXPECT_GT(std::abs(unaware.model[AxisTurn]), 10.0 * unaware.axisTurnSigma);
    EXPECT_LT(std::abs(unaware.model[AxisTurn]), 2.0 * unaware.axisSigma);
    EXPECT_LT(std::abs(kept.model[AxisTurn]), 4.0 * kept.axisSigma);
    EXPECT_LT(kept.axisSigma, 0.02 * kDegree);
}

TEST(InstrumentRefinement, RefinesOfAnEllipseWhatTheTiesTell) {
    // Along or across the twofold axis of a monoclinic crystal an ellipse stretches the cell within its ties.
    const std::array<double, 6> cell = {9.7, 6.4, 11.9, 90.0, 104.5, 90.0};
    SoFar soFar;
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        const Recorded data(cell, {.ellipse = 0.014, .azimuth = 15.0 * seed}, 0.3, seed);
        const vrk::RefinedInstrument found =
            data.refined(vrk::CellTies::of(LATTICE::mP, Eigen::Matrix3d::Identity()));
        ASSERT_TRUE(found.valid);
        addTo(soFar, found);
        for (const std::size_t i : {0U, 1U, 2U, 4U})
            EXPECT_LT(std::abs(found.lattice.cell[i] - cell[i]), 3.0 * found.lattice.cellSigma[i]) << i;
    }
    EXPECT_NEAR(soFar.sum(), 6072.84353728, 1e-4);
}

TEST(InstrumentRefinement, LeavesOutWhatANarrowWedgeCannotTellFromTheCell) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(seed);
        const Recorded data(
            kTriclinic, {},
            {.noise = 0.15, .seed = seed, .tiltFirst = -17, .tiltLast = 3, .share = 0.8, .step = 1});
        const vrk::RefinedInstrument found = data.refined({});
        ASSERT_TRUE(found.valid);
        EXPECT_FALSE(found.uses(vrk::InstrumentTerm::TiltScale)) << seed;
        expectCell(found.lattice.cell, kTriclinic, 0.01, 1);
    }
}

TEST(InstrumentRefinement, InventsNothing) {
    const Recorded clean(kTriclinic, {}, 0.4, 7);
    for (const LATTICE::BravaisTypes type : {LATTICE::aP, LATTICE::NoBravaisType}) {
        const vrk::RefinedInstrument found =
            clean.refined(vrk::CellTies::of(type, Eigen::Matrix3d::Identity()));
        ASSERT_TRUE(found.valid);
        EXPECT_EQ(std::ranges::count(found.used, true), 0);
    }
    // An ellipse is not to be told from a triclinic cell.
    const Recorded stretched(kTriclinic, {.ellipse = 0.014, .azimuth = 20.0}, 0.4, 8);
    const vrk::RefinedInstrument found = stretched.refined({});
    EXPECT_FALSE(found.uses(vrk::InstrumentTerm::EllipseCosine));
    EXPECT_FALSE(found.uses(vrk::InstrumentTerm::EllipseSine));
    const std::vector<double> tooFew(3, 0.0);
    EXPECT_FALSE(vrk::refineInstrument(clean.positions, tooFew, {}, clean.centre, {}).valid);
}

}  // namespace
