#include "pipeline/merging/CrystalMerge.h"

#include "SimulatedCrystals.h"
#include "pipeline/base/Attempt.h"
#include "pipeline/merging/ConsistentIndexing.h"
#include "pipeline/merging/CrystalAgreement.h"
#include "pipeline/merging/ReducedCell.h"
#include "support/FailureOf.h"
#include "support/SoFar.h"

namespace {

using Eigen::Matrix3d;
using testing_support::SimulatedCrystals;
using vrk::CrystalMerge;
using vrk::MergeOptions;

Matrix3d matrix(std::array<double, 9> rows) {
    return Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>>(rows.data());
}

const Matrix3d kSame = Matrix3d::Identity();
const Matrix3d kSwap = matrix({0, 1, 0, 1, 0, 0, 0, 0, -1});
const Matrix3d kSixfold = matrix({1, 1, 0, -1, 0, 0, 0, 0, 1});
const Matrix3d kAlongC = matrix({-1, 0, 0, 0, -1, 0, 0, 0, 1});

CrystalMerge mergedOf(const std::vector<vrk::CrystalData>& crystals, const MergeOptions& options = {},
                      vrk::Observer& observer = vrk::silence()) {
    return vrk::attempt(observer,
                        [&](vrk::Session& session) { return vrk::mergeCrystals(crystals, options, session); })
        .value();
}

struct Warned : vrk::Observer {
    void warned(const std::string& text, bool /*isError*/) override { said += text + '\n'; }
    std::string said;
};

void addTo(SoFar& soFar, const CrystalMerge& result) {
    soFar.add(result.ccHalf, result.data.observations.back().scale, result.dMin);
    soFar.addAll(result.cell.cell);
    soFar.addAll(result.cellSigma);
    for (const vrk::MergedCrystal& one : result.crystals)
        soFar.add(one.fromMiddle, one.indexing.base(2, 2), one.indexing.strain, one.indexing.correlation,
                  one.indexing.runnerUp, one.indexing.common, one.scale.k, one.scale.b, one.scale.sigmaOfK,
                  one.scale.sigmaOfB, one.scale.common, one.deltaCcHalf, one.outliers);
    for (const vrk::MergedReflection& one : result.data.merged)
        soFar.add(1e-3 * one.intensity, 1e-3 * one.sigma);
}

/// R of the square roots of merged and true intensities, on the scale that fits best.
double rOfAmplitudes(const CrystalMerge& result, const SimulatedCrystals& truth) {
    Eigen::ArrayXd found(std::ssize(result.data.merged)), right(found.size());
    for (Eigen::Index i = 0; i < found.size(); ++i) {
        const vrk::MergedReflection& one = result.data.merged[static_cast<std::size_t>(i)];
        found[i] = std::sqrt(std::max(one.intensity, 0.0));
        right[i] = std::sqrt(truth.truth.at(one.hkl));
    }
    const double scale = (found * right).sum() / found.square().sum();
    return (scale * found - right).abs().sum() / right.sum();
}

TEST(CrystalMergeTest, indexesAllCrystalsTheSameWay) {
    using Row = std::tuple<SimulatedCrystals, const char*, int>;
    const Row rows[] = {{{{7.5, 7.5, 9.3, 90, 90, 90}, 'P', "tP", "P 4"}, "4/m", 2},
                        {{{7.5, 7.5, 9.3, 90, 90, 90}, 'I', "tI", "I 4/m m m"}, "4/mmm", 1},
                        {{{9, 9, 9, 90, 90, 90}, 'P', "cP", "P 2 3"}, "m-3", 2},
                        {{{6.5, 6.5, 7.3, 90, 90, 120}, 'P', "hP", "P 3"}, "-3", 4},
                        {{{8.5, 8.5, 11.8, 90, 90, 120}, 'R', "hR", "R 3:H"}, "-3", 2},
                        {{{7.1, 7.15, 9.4, 82, 82.5, 75}, 'P', "aP", "P 1"}, "-1", 2},
                        {{{7.1, 8.3, 9.4, 90, 90.4, 90}, 'P', "mP", "P 1 2 1"}, "2/m", 2}};
    SoFar soFar;
    for (auto [made, laueClass, ways] : rows) {
        const bool hexagonal = made.bravais == "hP", triclinic = made.bravais == "aP";
        made.bases = {kSame, kSwap, kSwap, kSame, kSwap};
        if (hexagonal) made.bases = {kSame, kSwap, kSixfold, kSixfold * kSwap, kSame};
        if (made.bravais == "mP") made.bases = {kSame, kAlongC, kSame, kAlongC, kAlongC};
        if (triclinic) made.bases = {kSame, kSwap, kSame, kSame, kSwap};
        const auto crystals = made.make(8);
        const CrystalMerge result = mergedOf(crystals);
        EXPECT_EQ(result.data.laue.best().laueClass, laueClass) << made.group;
        EXPECT_EQ(result.bravais, made.bravais);
        for (const vrk::MergedCrystal& one : result.crystals) {
            EXPECT_TRUE(one.used) << one.reason;
            EXPECT_EQ(one.indexing.ways, ways) << made.group;
            EXPECT_GT(one.indexing.correlation, 0.9) << made.group << one.name;
            EXPECT_LT(one.indexing.runnerUp, 0.5) << made.group << one.name;
        }
        // Merged in the wrong way CC1/2 would be about a half.
        EXPECT_GT(result.ccHalf, 0.99) << made.group;
        EXPECT_LT(result.data.statistics.overall.rMeas, 0.08) << made.group;
        addTo(soFar, result);
    }
    EXPECT_NEAR(soFar.sum(), 95918.3934, 1e-3);
}

TEST(CrystalMergeTest, agreesWithTheTruthTheBetterTheMoreCrystals) {
    SimulatedCrystals simulated{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "mP", "P 1 2 1"};
    simulated.wedge = 50;
    simulated.noise = 0.15;
    const auto crystals = simulated.make(12);
    const CrystalMerge few = mergedOf({crystals.begin(), crystals.begin() + 3});
    const CrystalMerge all = mergedOf(crystals);
    const double rOfFew = rOfAmplitudes(few, simulated), rOfAll = rOfAmplitudes(all, simulated);
    // Noise falls with the root of the observations, of which there are about four times as many.
    EXPECT_NEAR(
        rOfAll / rOfFew,
        std::sqrt(few.data.statistics.overall.redundancy() / all.data.statistics.overall.redundancy()), 0.2);
    EXPECT_LT(rOfAll, 0.06);
    double k = 0, b = 0;
    for (std::size_t i = 0; i < crystals.size(); ++i) {
        k += simulated.k[i] / 12;
        b += simulated.b[i] / 12;
    }
    for (std::size_t i = 0; i < crystals.size(); ++i) {
        const vrk::CrystalScale& scale = all.crystals[i].scale;
        EXPECT_NEAR(scale.k, simulated.k[i] - k, 0.08) << i;
        EXPECT_NEAR(scale.b, simulated.b[i] - b, 0.25) << i;
        EXPECT_LT(std::abs(scale.k - simulated.k[i] + k), 5 * scale.sigmaOfK + 0.01) << i;
    }
    // Thin wedges in all directions fill reciprocal space.
    ASSERT_EQ(all.growth.size(), 12U);
    EXPECT_LT(all.growth.front().completeness, 0.6);
    EXPECT_GT(all.growth.back().completeness, 0.97);
    SoFar soFar;
    for (const vrk::GrowthStep& step : all.growth)
        soFar.add(step.crystal, step.completeness, step.redundancy, step.ccHalf);
    EXPECT_NEAR(soFar.sum(), 165.650431, 1e-5);
    // The same crystals give the same data, and all the while it can be stopped.
    struct Watch : vrk::Observer {
        void stageBegan(const std::string& name) override { now = name; }
        bool canceled() override { return ++asked[now] < 0; }
        std::string now;
        std::map<std::string, int> asked;
    } watch;
    EXPECT_EQ(mergedOf(crystals, {}, watch).data.merged[50].intensity, all.data.merged[50].intensity);
    for (const auto& [stage, least] : {std::pair("symmetry", 12), {"index", 24}, {"scale", 1}, {"merge", 1}})
        EXPECT_GE(watch.asked[stage], least) << stage;
}

TEST(CrystalMergeTest, leavesOutCrystalsThatSpoilTheData) {
    SoFar soFar;
    // The one in whose base all are, at last.
    for (const auto& [count, bad] : {std::pair(3U, 1U), {5, 1}, {12, 0}}) {
        SimulatedCrystals simulated{{6.5, 6.5, 7.3, 90, 90, 90}, 'P', "tP", "P 4"};
        simulated.bases = {kSame, kSwap, kSwap};
        simulated.random = bad;
        simulated.noise = 0.1;
        const auto crystals = simulated.make(count);
        const CrystalMerge result = mergedOf(crystals);
        for (std::size_t i = 0; i < count; ++i)
            EXPECT_EQ(result.crystals[i].used, i != bad) << result.crystals[i].reason;
        EXPECT_LT(result.crystals[bad].deltaCcHalf, -0.03 / static_cast<double>(count));
        EXPECT_TRUE(says(result.crystals[bad].reason, "CC1/2"));
        EXPECT_GT(result.ccHalf, 0.95);
        for (const vrk::Observation& one : result.data.observations)
            ASSERT_NE(one.source, bad);
        MergeOptions keep;
        keep.keepAll = true;
        const CrystalMerge kept = mergedOf(crystals, keep);
        EXPECT_TRUE(kept.crystals[bad].used);
        EXPECT_FALSE(kept.crystals[bad].reason.empty());
        EXPECT_LT(kept.ccHalf, result.ccHalf);
        addTo(soFar, result);
        addTo(soFar, kept);
    }
    EXPECT_NEAR(soFar.sum(), 59504.3807, 1e-3);
}

TEST(CrystalMergeTest, tellsWhereNoCrystalAgreesWithTheOthers) {
    for (const auto& [like, fallOff] : {std::pair(true, 0.0), {false, 0.0}, {true, 12.0}, {false, 12.0}}) {
        std::vector<vrk::CrystalData> crystals;
        for (unsigned seed = 1; seed <= 4; ++seed) {
            SimulatedCrystals one{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "mP", "P 1 2 1"};
            one.seed = like ? 1 : seed;
            crystals.push_back(one.make(4)[seed - 1]);
            for (vrk::Observation& spot : crystals.back().observations) {
                const double weaker = std::exp(-fallOff / (2 * spot.spacing * spot.spacing));
                spot.intensity *= weaker;
                spot.sigma *= weaker;
            }
        }
        Warned heard;
        mergedOf(crystals, {}, heard);
        EXPECT_EQ(says(heard.said, "agree little"), !like) << fallOff;
    }
}

TEST(CrystalMergeTest, refusesOtherCellsByName) {
    SimulatedCrystals simulated{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "mP", "P 1 2 1"};
    auto crystals = simulated.make(4);
    crystals[2].cell.cell[1] *= 1.05;
    const Refusal refusal = failureOf([&] { mergedOf(crystals); });
    EXPECT_EQ(refusal.kind, vrk::FailureKind::Usage);
    EXPECT_TRUE(refusal.says("crystal2: mP 7.100 8.715 9.400 90.00 103.00 90.00")) << refusal.text;
    EXPECT_FALSE(refusal.says("crystal1:")) << refusal.text;
    MergeOptions options;
    options.leaveOut = true;
    const CrystalMerge without = mergedOf(crystals, options);
    EXPECT_FALSE(without.crystals[2].used);
    EXPECT_NEAR(without.cell.cell[1], 8.3, 1e-9);
    options = {};
    options.cellTolerance = 0.06;
    const CrystalMerge with = mergedOf(crystals, options);
    EXPECT_TRUE(with.crystals[2].used);
    EXPECT_GT(with.cell.cell[1], 8.35);
    EXPECT_GT(with.cellSigma[1], 0.01);
    EXPECT_EQ(with.cellSigma[0], 0);
    SoFar soFar;
    addTo(soFar, with);
    EXPECT_NEAR(soFar.sum(), 8516.41431, 1e-4);
    options.dMin = 1.5;
    EXPECT_NEAR(mergedOf(crystals, options).data.statistics.overall.dMin, 1.5, 1e-9);
    options.dMin = 50;
    EXPECT_TRUE(failureOf([&] { mergedOf(crystals, options); }).says("spacing above 50 Angstrom"));
    EXPECT_TRUE(failureOf([&] { mergedOf({crystals[0]}); }).says("two crystals at least"));
    options.cellTolerance = 0.0701;
    EXPECT_TRUE(failureOf([&] { mergedOf(crystals, options); }).says("up to 7 %"));
}

TEST(CrystalMergeTest, tellsWhatIsOddAboutACrystal) {
    SimulatedCrystals simulated{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "mP", "P 1 2 1"};
    auto crystals = simulated.make(8);
    // Two lie on the way from cell to cell that joins them to the others, one of them too far away.
    crystals[2].cell.cell[1] *= 1.018;
    crystals[3].cell.cell[1] *= 1.033;
    crystals[4].cell.cell[1] *= 1.2;
    crystals[5].observations.resize(19);
    crystals[6].kiloVolts = 203;
    crystals[7].observations.clear();
    crystals[0].bravais = "oP";
    MergeOptions options;
    options.leaveOut = true;
    Warned heard;
    const CrystalMerge result = mergedOf(crystals, options, heard);
    EXPECT_EQ(result.bravais, "mP");
    EXPECT_EQ(result.middle, 1U);
    const std::string text =
        "crystal4 is left out: its cell is another one, 7.100 9.960 9.400 90.00 103.00 90.00\n"
        "crystal6 was recorded with 203 kV, not with 200\n"
        "crystal3 is left out: its cell fits the common one in no way, 7.100 8.574 9.400 90.00 103.00 90.00\n"
        "crystal5 is left out: it has 19 observations in common with the others, too few for a scale\n"
        "crystal7 is left out: it has 0 observations in common with the others, too few for a scale\n";
    EXPECT_EQ(heard.said, text);
}

/// Among few each is compared with all, among many with some; noise makes first choices wrong.
TEST(ConsistentIndexingTest, findsTheWaysOfFewAndOfMany) {
    const vrk::LaueRotations fourfold = {{},
                                         {{{{-1, 0, 0}, {0, -1, 0}, {0, 0, 1}}}},
                                         {{{{0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}}},
                                         {{{{0, -1, 0}, {1, 0, 0}, {0, 0, 1}}}}};
    for (const auto& [count, noise, most, expected] :
         {std::tuple(12U, 0.6, 0, 877.993), {160U, 1.6, 12, 178858.7913}}) {
        SimulatedCrystals simulated{{4.5, 4.5, 5.3, 90, 90, 90}, 'P', "tP", "P 4"};
        simulated.bases = {kSame, kSwap, kSwap};
        simulated.wedge = 30;
        simulated.noise = noise;
        const auto crystals = simulated.make(count);
        vrk::Session session(vrk::silence());
        const auto found =
            vrk::indexConsistently(crystals, vrk::ReducedCell(crystals[0].cell), 0, fourfold, 0.05, session);
        int wrong = 0;
        SoFar soFar;
        for (std::size_t i = 0; i < count; ++i) {
            wrong += found[i].base(2, 2) * (i % 3 == 0 ? 1 : -1) < 0;
            soFar.add(found[i].correlation, found[i].runnerUp, found[i].common);
        }
        EXPECT_LE(wrong, most) << count;
        EXPECT_NEAR(soFar.sum(), expected, 1e-3);
    }
}

TEST(CrystalAgreementTest, isThatOfHalvesOfTheCrystals) {
    // Many crystals with the same noise: two halves have the noise of half of them.
    std::mt19937 engine(2);
    std::normal_distribution<double> normal;
    std::vector<vrk::Observation> list;
    for (int h = 1; h <= 600; ++h) {
        const double truth = normal(engine);
        for (std::uint32_t crystal = 0; crystal < 8; ++crystal) {
            list.push_back({.hkl = {h, 0, 0},
                            .intensity = truth + normal(engine),
                            .sigma = 1,
                            .spacing = 2 + 1.0 / h,
                            .source = crystal});
            // An equivalent that shares the noise counts for nothing.
            list.push_back(list.back());
            list.back().hkl = {-h, 0, 0};
        }
    }
    const vrk::CrystalAgreement found = vrk::crystalAgreement(list, 8, {vrk::IndexRotation()});
    EXPECT_NEAR(found.ccHalf, 1 / (1 + 1 / 4.0), 0.03);
    for (const double delta : found.delta)
        EXPECT_NEAR(delta, 1 / (1 + 1 / 4.0) - 1 / (1 + 1 / 3.5), 0.02);
}

}  // namespace
