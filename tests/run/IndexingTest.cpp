// The choices on the way from a lattice to indexed reflections.
#include "pipeline/run/Indexing.h"

#include "pipeline/base/Attempt.h"
#include "pipeline/base/Failure.h"
#include "pipeline/run/FurtherCrystals.h"
#include "pipeline/run/PeakCell.h"
#include "support/RecordedReflections.h"
#include "support/SoFar.h"

namespace {

using vrk::test::Recorded;

TEST(ChooseLevel, GoesDownWhileTheLatticeHoldsAndUpWhereThatIsCleaner) {
    using Shares =
        std::vector<vrk::LevelShare>;  // by rising threshold; without reflections: not to be indexed
    const std::tuple<const char*, std::size_t, Shares, std::size_t> cases[] = {
        {"all clean", 2, {{900, 890}, {500, 495}, {200, 199}}, 0},
        {"the lowest is noise", 2, {{5000, 1500}, {500, 490}, {200, 199}}, 1},
        {"stops at the first that is dirty", 2, {{900, 890}, {500, 400}, {200, 199}}, 2},
        {"never clean, most of what comes is indexed", 2, {{900, 790}, {500, 450}, {200, 180}}, 0},
        {"never clean, little of what comes is indexed", 2, {{900, 700}, {500, 450}, {200, 180}}, 1},
        {"one that cannot be indexed ends it", 2, {{900, 890}, {0, 0}, {200, 199}}, 2},
        {"clearly cleaner above", 0, {{900, 700}, {400, 350}, {200, 199}}, 2},
        {"hardly cleaner above", 0, {{900, 700}, {400, 316}, {200, 199}}, 0},
        {"cleaner, but too few", 0, {{900, 700}, {150, 149}, {100, 100}}, 0},
        {"clean enough", 0, {{900, 815}, {400, 399}}, 0},
        {"not even the first", 1, {{900, 815}, {0, 0}, {400, 399}}, 1},
    };
    for (const auto& [name, found, shares, chosen] : cases) {
        std::map<std::size_t, int> asked;
        const auto share = [&asked, &all = shares](std::size_t i) -> std::optional<vrk::LevelShare> {
            ++asked[i];
            return all[i].reflections ? std::optional(all[i]) : std::nullopt;
        };
        EXPECT_EQ(vrk::chooseLevel(found, shares.size(), share), chosen) << name;
        for (const auto& [level, times] : asked)
            EXPECT_EQ(times, 1) << name << ", level " << level;
    }
}

std::unique_ptr<VoxMRCData> blankVolume() {
    const auto size = static_cast<unsigned>(2 * vrk::test::kHalfWidth);
    return std::unique_ptr<VoxMRCData>(VoxMRCData::Create3D(size, size, 2));
}

/// The reflections of a crystal as one level, with the lattice that the search would hand on.
struct Found {
    Found(const std::array<double, 6>& cell, const vrk::test::Distortion& distortion,
          const vrk::test::Recording& recording)
        : data(cell, distortion, recording) {
        volume.facts.tiltFirst = recording.tiltFirst;
        volume.facts.tiltLast = recording.tiltLast;
        volume.facts.pixelSize = vrk::test::kPixelSize;
        volume.facts.kiloVolts = 200;
        level.threshold = 20;
        level.zeroBeam = 5;
        add(data);
        choice.best.lattice =
            vrk::Lattice::of(reciprocalCell(data.truth, vrk::test::kPixelSize), volume.centre());
        choice.best.score = {.points = 100, .indexed = 98, .radius = 1, .chance = 0.01, .evidence = 500};
    }

    void add(const Recorded& crystal) {
        for (std::size_t i = 0; i < crystal.positions.size(); ++i) {
            const Eigen::Vector3d position = crystal.positions[i] - crystal.centre + volume.centre();
            level.reflections.push_back({position, position, crystal.tilts[i], 100});
        }
    }

    vrk::Indexed indexed(const char* axisSource = "header") {
        vrk::Session session(vrk::silence());
        vrk::TiltAxis axis;
        axis.source = axisSource;
        return vrk::indexReflections({level}, choice, volume, axis, session);
    }

    Recorded data;
    vrk::ReciprocalVolume volume = {blankVolume(),
                                    SamplingGeometry(8, std::vector<float>{-60, 60}, 8),
                                    vrk::RadialNoise(*blankVolume()),
                                    {}};
    vrk::Level level;
    vrk::LatticeChoice choice;
};

TEST(IndexReflections, TheTypeIsTheHighestThatTheReflectionsBear) {
    const std::tuple<const char*, std::array<double, 6>, double, double, LATTICE::BravaisTypes> cases[] = {
        {"cubic", {7, 7, 7, 90, 90, 90}, 0, 0.3, LATTICE::cP},
        {"cubic behind an ellipse", {7, 7, 7, 90, 90, 90}, 0.012, 0.3, LATTICE::cP},
        {"cubic, blurred", {7, 7, 7, 90, 90, 90}, 0.004, 0.9, LATTICE::cP},
        {"tetragonal behind an ellipse", {5.5, 5.5, 9, 90, 90, 90}, 0.012, 0.3, LATTICE::tP},
        {"hexagonal behind an ellipse", {6, 6, 9, 90, 90, 120}, 0.012, 0.3, LATTICE::hP},
        {"edges of an orthorhombic cell 1.5 % apart", {6, 6.09, 9, 90, 90, 90}, 0, 0.3, LATTICE::oP},
        {"blurred edges of an orthorhombic cell 1.5 % apart", {6, 6.09, 9, 90, 90, 90}, 0, 0.9, LATTICE::oP},
        {"an angle a degree from 90", {5, 6.5, 9, 90, 91, 90}, 0, 0.3, LATTICE::mP},
        {"a blurred angle a degree from 90", {5, 6.5, 9, 90, 91, 90}, 0, 0.9, LATTICE::mP},
        {"a triclinic cell nearly alike", {4.535, 11.79, 12.0, 77.07, 82.27, 82.59}, 0, 0.8, LATTICE::aP},
        {"one axis longer, as an ellipse makes another", {7, 7, 7.14, 90, 90, 90}, 0.012, 0.3, LATTICE::tP},
        {"the same, turned otherwise", {7, 7, 7.14, 90, 90, 90}, 0.012, 0.3, LATTICE::tP},
        {"one axis shorter", {7, 7, 6.86, 90, 90, 90}, 0.012, 0.3, LATTICE::tP},
    };
    unsigned seed = 1;
    SoFar soFar;
    for (const auto& [name, edges, ellipse, noise, type] : cases) {
        SCOPED_TRACE(name);
        Found found(edges, {.ellipse = ellipse, .azimuth = 35}, {.noise = noise, .seed = seed++});
        const vrk::Indexed indexed = found.indexed();
        EXPECT_STREQ(LATTICE::shortName(indexed.symmetry().bravaisType), LATTICE::shortName(type));
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(indexed.conventional.cell[i], edges[i], 0.003 * edges[i]);
        EXPECT_EQ(indexed.refined.sense, 1);
        EXPECT_EQ(indexed.instrument.uses(vrk::InstrumentTerm::EllipseCosine), ellipse > 0);
        EXPECT_GT(indexed.completeness.core.share(), 0.2);
        EXPECT_LT(indexed.completeness.core.share(), 0.3) << "a quarter of the nodes was recorded";
        soFar.addAll(indexed.conventional.cell);
        soFar.addText(indexed.strain);
        soFar.add(indexed.conventional.sigma, indexed.completeness.core.share(), indexed.unprovenEllipse,
                  indexed.evidence.tiedUncertainty, indexed.evidence.pixelFactor, indexed.resolution);
    }
    EXPECT_NEAR(soFar.sum(), 3661.24081, 1e-4);
}

TEST(FurtherCrystals, HideNeitherTypeNorAxisOfTheFirst) {
    const std::tuple<const char*, std::array<double, 6>, double, unsigned> cases[] = {
        {"cP", {7, 7, 7, 90, 90, 90}, 4, 2},           {"hP", {6, 6, 9, 90, 90, 120}, 5, 1},
        {"mP", {5.2, 6.3, 8.1, 90, 97, 90}, 6, 2},     {"aP", {5.2, 6.3, 8.1, 82, 97, 104}, 4, 3},
        {"aP", {7.2, 8.3, 11.1, 82, 97, 104}, 1.5, 3},
    };
    SoFar soFar;
    for (const auto& [type, cell, turn, seed] : cases) {
        SCOPED_TRACE(testing::Message() << type << turn);
        vrk::test::Recording recording{.noise = 0.4, .seed = seed};
        Found found(cell, {.ellipse = 0.01}, recording);
        recording.turn = turn;
        found.add(Recorded(cell, {.ellipse = 0.01}, recording));
        vrk::Indexed first = found.indexed("assumed");
        vrk::Recording known = vrk::recordingOf(found.volume, {});
        known.estimated = true;
        vrk::Session session(vrk::silence());
        const vrk::Crystals crystals = vrk::findFurtherCrystals(first, nullptr, known, {}, session);
        ASSERT_EQ(crystals.others.size(), 1U);
        const vrk::FurtherCrystal& other = crystals.others.front();
        EXPECT_NEAR(*other.turn, turn, 0.2);
        for (const vrk::Indexed* crystal : {&std::as_const(first), &other.indexed}) {
            EXPECT_STREQ(LATTICE::shortName(crystal->symmetry().bravaisType), type);
            EXPECT_FALSE(crystal->evidence.axisAssumed);
            soFar.addAll(crystal->conventional.cell);
            soFar.add(crystal->refined.lattice.rms, crystal->evidence.elsewhere);
        }
        EXPECT_EQ(first.refined.indices.size(), found.level.reflections.size());
        soFar.add(crystals.firstShare, other.share, other.strongShare, *other.turn, other.sameCell);
    }
    EXPECT_NEAR(soFar.sum(), 2977.20043, 1e-4);
}

TEST(IndexReflections, AnAxisThatNobodyStatedMustBeConfirmed) {
    const auto level = [](const vrk::test::Distortion& distortion, double share, const char* source) {
        Found found({5.2, 6.3, 8.1, 90, 97, 90}, distortion, {.noise = 0.3, .seed = 4, .share = share});
        return found.indexed(source).verdict.level;
    };
    EXPECT_EQ(level({}, 0.8, "assumed"), vrk::Confidence::High);
    EXPECT_EQ(level({.axisTurn = 1}, 0.8, "assumed"), vrk::Confidence::Fair);
    EXPECT_EQ(level({.axisTurn = 1}, 0.8, "header"), vrk::Confidence::High);
}

TEST(IndexReflections, AnEllipseMayMakeTiesThatACrystalHasNot) {
    using enum vrk::Confidence;
    using Cell = std::array<double, 6>;
    for (const auto& [cell, ellipse, orientation, level, lattice] :
         {std::tuple(Cell{5.2, 6.3, 8.1, 82, 97, 104}, 0.0, 4U, Low, Fair),
          {{5.2, 6.3, 8.1, 90, 97, 90}, 0, 7, High, High},
          {{5.2, 6.3, 8.1, 90, 97, 90}, 0.014, 7, Fair, Fair},
          {{5.2, 6.3, 8.1, 90, 90, 90}, 0.014, 7, High, High},
          // A right angle or the ellipse.
          {{5.2, 6.3, 8.1, 90, 90, 90}, 0.014, 5, Fair, Fair}}) {
        Found found(cell, {.ellipse = ellipse, .azimuth = 40},
                    {.noise = 0.3, .seed = orientation, .share = 0.8});
        const vrk::Verdict verdict = found.indexed().verdict;
        EXPECT_EQ(verdict.level, level) << ellipse;
        EXPECT_EQ(verdict.lattice, lattice) << ellipse;
        ASSERT_EQ(verdict.reasons.size(), level == High ? 0U : 1U);
        for (const std::string& reason : verdict.reasons)
            EXPECT_TRUE(says(reason, "'vrk calibrate'"));
        if (ellipse > 0) continue;
        found.volume.facts.instrument.emplace().ellipse = vrk::CalibratedValue{0, 1e-4, 0};
        EXPECT_EQ(found.indexed().verdict.level, vrk::Confidence::High) << "with a calibration";
    }
}

TEST(IndexReflections, ATypeThatIsRefusedByAHairLeavesADoubt) {
    for (const auto& [beta, type, doubted] :
         {std::tuple(90.0, "oP", ""), {90.05, "mP", "oP"}, {91.0, "mP", ""}}) {
        Found found({5.2, 6.3, 8.1, 90, beta, 90}, {}, {.noise = 0.2, .seed = 6, .share = 0.8});
        const vrk::Indexed indexed = found.indexed();
        EXPECT_STREQ(LATTICE::shortName(indexed.symmetry().bravaisType), type) << beta;
        EXPECT_EQ(indexed.evidence.higherType, doubted) << beta;
        EXPECT_EQ(indexed.verdict.level, *doubted ? vrk::Confidence::Fair : vrk::Confidence::High) << beta;
    }
}

/// What is found in a plain list of the reflections within a radius, all of them turned.
vrk::PeakCell cellOfPeaks(const Recorded& data, const Eigen::Matrix3d& turn, double radius) {
    vrk::PeakList peaks;
    peaks.reflections.reset(new ReflexVector);
    for (const Eigen::Vector3d& position : data.positions) {
        const Eigen::Vector3d p = turn * (position - data.centre);
        if (p.norm() < radius) peaks.reflections->push_back(new Reflex(p.x(), p.y(), p.z()));
    }
    vrk::Session session(vrk::silence());
    vrk::PeakCellOptions options;
    options.pixelSize = vrk::test::kPixelSize;
    return vrk::findCell(peaks, options, session);
}

TEST(FindCell, TrustsNoNarrowRangeOfTiltsHighly) {
    const auto reasonsAt = [](double most) {
        const Recorded data({9, 11, 14, 90, 98, 90}, {},
                            {.noise = 0.3, .seed = 5, .tiltFirst = -most, .tiltLast = most, .share = 0.9});
        const vrk::PeakCell cell = cellOfPeaks(data, Eigen::Matrix3d::Identity(), 110);
        EXPECT_NE(cell.verdict.level, vrk::Confidence::High);
        std::string reasons;
        for (const std::string& reason : cell.verdict.reasons)
            reasons += reason + "; ";
        return reasons;
    };
    EXPECT_TRUE(says(reasonsAt(10), "determine its edges"));
    EXPECT_FALSE(says(reasonsAt(60), "narrow"));
}

TEST(FindCell, TakesEllipseAndCurvatureOutOfAPlainList) {
    const Recorded data({7, 7, 9.5, 90, 90, 90}, {.ellipse = 0.014, .azimuth = 35},
                        {.noise = 0.2, .seed = 6});
    const Eigen::Matrix3d turned =
        Eigen::AngleAxisd(0.8, Eigen::Vector3d(1, 2, 3).normalized()).toRotationMatrix();
    const vrk::PeakCell cell = cellOfPeaks(data, turned, 1e9);
    EXPECT_STREQ(LATTICE::shortName(cell.symmetry.bravaisType), "tP");
    EXPECT_NEAR(cell.symmetry.measured.a, 7.0, 0.02);
    EXPECT_NEAR(cell.symmetry.measured.c, 9.5, 0.03);
    EXPECT_EQ(cell.verdict.level, vrk::Confidence::Fair);
    ASSERT_TRUE(cell.indexed);
    EXPECT_NEAR(cell.indexed->instrument.ellipse(), 0.014, 0.002);
    EXPECT_NEAR(cell.wavelength, 0.0251, 0.009);
}

TEST(IndexReflections, RefusesWhatDeterminesNoCell) {
    Found found({5.2, 6.3, 8.1, 82, 97, 104}, {}, {.noise = 0.3});
    found.level.reflections.resize(5);
    EXPECT_THROW(found.indexed(), vrk::Failure);
}

}  // namespace
