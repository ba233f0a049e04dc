#include "pipeline/integration/DataReduction.h"

#include <gemmi/symmetry.hpp>

#include "RandomGeometry.h"
#include "pipeline/integration/LaueGroup.h"
#include "pipeline/simulation/SimulatedCrystal.h"
#include "support/FailureOf.h"
#include "support/SoFar.h"

namespace {

using namespace vrk;

Eigen::Matrix3d reciprocalOf(const std::array<double, 6>& cell) {
    // Its rows are our columns.
    const Matrix3 rows = SimulatedCrystal::fromCell(cell, 'P', 0, 1).reciprocal();
    return Eigen::Map<const Eigen::Matrix3d>(rows.front().data());
}

/// A data set with the symmetry of a space group, of a wedge that lacks a cone.
struct DataSet {
    std::array<double, 6> cell;
    char centring = 'P';
    std::string group = "P 1";
    double noise = 0.03;     ///< relative, beside a constant part
    double understated = 1;  ///< true over stated uncertainty
    double wave = 0;         ///< amplitude of ln(scale) over the frames
    unsigned seed = 3;

    std::vector<IntegratedReflection> reflections() const {
        const Eigen::Matrix3d reciprocal = reciprocalOf(cell);
        const gemmi::SpaceGroup* space = gemmi::find_spacegroup_by_name(group);
        const gemmi::GroupOps operations = space->operations();
        const gemmi::ReciprocalAsu unique(space);
        std::mt19937 random(seed);
        std::normal_distribution<double> normal;
        std::exponential_distribution<double> wilson(1.0 / 1000);
        std::map<gemmi::Op::Miller, double> truth;
        std::vector<IntegratedReflection> list;
        forEachIndex(9, 9, 9, [&](int h, int k, int l) {
            const Eigen::Vector3d g = reciprocal * Eigen::Vector3d(h, k, l);
            const double length = g.norm();
            if (length == 0 || length > 0.9 || isExtinct(centring, h, k, l)) return;
            if (std::abs(g.normalized().dot(Eigen::Vector3d(0.36, 0.48, 0.8))) > 0.85) return;
            const gemmi::Op::Miller hkl = {h, k, l};
            const auto [entry, isNew] = truth.try_emplace(unique.to_asu(hkl, operations).first, 0.0);
            if (isNew) entry->second = wilson(random) * std::exp(-3 * length * length);
            const double value = operations.is_systematically_absent(hkl) ? 0 : entry->second;
            const double frame = 60 + 55 * g.normalized().dot(Eigen::Vector3d(0.8, -0.6, 0));
            const double scale = std::exp(wave * std::sin(frame / 18));
            const double sigma = std::hypot(10, noise * value * scale);
            const double intensity = value * scale + understated * sigma * normal(random);
            list.push_back({.h = h,
                            .k = k,
                            .l = l,
                            .intensity = intensity,
                            .sigma = sigma,
                            .frame = frame,
                            .spacing = 1 / length});
        });
        return list;
    }
    DataReduction reduced() const {
        return reduceData(reflections(), 121, reciprocalOf(cell), centring, 1 / 0.9);
    }
};

void addTo(SoFar& soFar, const DataReduction& data) {
    soFar.add(data.laue.friedelCorrelation, data.errors.a, data.errors.b, data.wilson.b, data.wilson.lnScale,
              data.spaceGroups.eSquareMinusOne, data.statistics.limitByCcHalf, data.statistics.limitByISigma);
    for (const LaueCandidate& one : data.laue.candidates)
        soFar.add(one.rMeas);
    for (const RotationEvidence& one : data.laue.rotations)
        soFar.add(one.correlation);
    for (const MergedReflection& one : data.merged)
        soFar.add(one.sigma, one.amplitude.value, one.amplitude.sigma);
    for (const ShellStatistics& one : data.statistics.shells)
        soFar.add(one.dMin, one.iOverSigma, one.rInt, one.rMeas, one.ccHalf, one.possible);
    for (const ReflectionCondition& one : data.spaceGroups.conditions)
        soFar.add(one.obeyingISigma, one.violatingISigma, one.ratio, one.evidence);
    for (const SpaceGroupCandidate& one : data.spaceGroups.candidates)
        soFar.add(one.evidence, one.extinguished);
}

TEST(LaueGroupTest, rotationsOfALongCellAreThoseOfItsType) {
    EXPECT_EQ(latticeRotations(reciprocalOf({4, 4, 900, 90, 90, 90}), 'P').size(), 8U);
    EXPECT_EQ(latticeRotations(reciprocalOf({4, 5, 900, 90, 90, 90}), 'P').size(), 4U);
}

TEST(LaueGroupTest, isFoundBelowAndAtTheSymmetryOfTheLattice) {
    const std::array<double, 6> cubic = {7.5, 7.5, 7.5, 90, 90, 90};
    const std::array<double, 6> tetragonal = {7.5, 7.5, 9.3, 90, 90, 90};
    const std::array<double, 6> hexagonal = {7.5, 7.5, 9.3, 90, 90, 120};
    using Row = std::tuple<std::array<double, 6>, char, const char*, const char*>;
    const Row rows[] = {{{7.1, 8.3, 9.4, 82, 75, 68}, 'P', "P 1", "P -1"},
                        {{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "P 1 2 1", "P 1 2/m 1"},
                        {{7.1, 8.3, 9.4, 90, 90, 90}, 'P', "P 1 2 1", "P 1 2/m 1"},
                        {{7.1, 8.3, 9.4, 90, 90, 90}, 'P', "P 1 1 2", "P 1 1 2/m"},
                        {{7.1, 8.3, 9.4, 90, 90, 90}, 'C', "C 2 2 2", "C m m m"},
                        {tetragonal, 'I', "I 4", "I 4/m"},
                        {tetragonal, 'P', "P 4 2 2", "P 4/m m m"},
                        {hexagonal, 'P', "P 3", "P -3"},
                        {hexagonal, 'P', "P 3 2 1", "P -3 m 1"},
                        {hexagonal, 'P', "P 3 1 2", "P -3 1 m"},
                        {hexagonal, 'P', "P 6", "P 6/m"},
                        {{7.5, 7.5, 11.3, 90, 90, 120}, 'R', "R 3:H", "R -3:H"},
                        {{7.5, 7.5, 11.3, 90, 90, 120}, 'R', "P 1", "R -1"},
                        {{12, 12, 12, 90, 90, 90}, 'F', "F 2 3", "F m -3"},
                        {cubic, 'P', "P 4 3 2", "P m -3 m"}};
    SoFar soFar;
    for (const auto& [cell, centring, group, symbol] : rows) {
        const DataReduction data = DataSet{cell, centring, group}.reduced();
        EXPECT_EQ(data.laue.best().symbol, symbol);
        EXPECT_LT(data.laue.best().rMeas, 0.1);
        addTo(soFar, data);
    }
    EXPECT_NEAR(soFar.sum(), 92475.3730, 1e-3);
}

TEST(LaueGroupTest, fewEquivalentsMakeNoSymmetry) {
    // A zone with both Friedel mates, which the axis perpendicular to it turns into each other, and some
    // reflections with their images under the axis; with the fall-off with resolution that all share.
    const Eigen::Matrix3d reciprocal = reciprocalOf({7.1, 8.3, 9.4, 90, 103, 90});
    for (const bool symmetric : {false, true}) {
        int wrong = 0;
        double correlation = 0;
        for (unsigned seed = 1; seed <= 150; ++seed) {
            std::mt19937 random(seed);
            std::exponential_distribution<double> wilson(1.0 / 1000);
            std::normal_distribution<double> normal(0, 20);
            std::vector<Observation> list;
            const auto add = [&](const Indices& hkl, double value) {
                const double s = (reciprocal * Eigen::Vector3d(hkl[0], hkl[1], hkl[2])).norm();
                const double weaker = seed % 2 == 0 ? 1 : std::exp(-9 * s * s);
                list.push_back({hkl, weaker * (value + normal(random)), weaker * 20, 1 / s});
            };
            for (int h = 1; h <= 6; ++h)
                for (int l = -6; l <= 6; ++l) {
                    const double value = wilson(random);
                    add({h, 0, l}, value);
                    add({-h, 0, -l}, value);
                }
            const unsigned images = symmetric ? 40 : seed % 2 == 0 ? seed % 25 : 80;
            for (unsigned i = 0; i < images; ++i) {
                const Indices hkl = {1 + static_cast<int>(i % 6), 1 + static_cast<int>(i / 6 % 2),
                                     1 + static_cast<int>(i / 12)};
                const double value = wilson(random);
                add(hkl, value);
                add({-hkl[0], hkl[1], -hkl[2]}, symmetric ? value : wilson(random));
            }
            const LaueChoice choice = chooseLaueGroup(list, reciprocal, 'P');
            wrong += choice.best().laueClass == (symmetric ? "2/m" : "-1") ? 0 : 1;
            if (seed % 2 == 1) correlation += choice.rotations.front().correlation / 75;
        }
        EXPECT_NEAR(correlation, symmetric ? 0.97 : 0, 0.05);
        EXPECT_EQ(wrong, 0) << (symmetric ? "2/m" : "-1");
    }
}

TEST(ScalingTest, findsTheScaleThatIsThereAndNoOther) {
    DataSet set{{7.5, 7.5, 9.3, 90, 90, 90}, 'P', "P 4 2 2"};
    const DataReduction flat = set.reduced();
    for (const double k : flat.scales.k)
        EXPECT_EQ(k, 0);
    set.wave = 0.4;
    const DataReduction waved = set.reduced();
    double offset = 0;
    for (int frame = 10; frame <= 110; frame += 10)
        offset += (std::log(waved.scales.factor(frame, 2)) - 0.4 * std::sin(frame / 18.0)) / 11;
    for (int frame = 10; frame <= 110; frame += 5)
        EXPECT_NEAR(std::log(waved.scales.factor(frame, 2)) - offset, 0.4 * std::sin(frame / 18.0), 0.03)
            << frame;
    EXPECT_NEAR(flat.wilson.b, 6, 0.5);  // of the simulated intensities
    EXPECT_LT(waved.statistics.overall.rInt, 1.3 * flat.statistics.overall.rInt);
    SoFar soFar;
    addTo(soFar, waved);
    EXPECT_NEAR(soFar.sum(), 4072.26909, 1e-4);
}

TEST(ErrorModelTest, findsWhatCountingDoesNotExplain) {
    DataSet set{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "P 1 2 1"};
    set.noise = 0.08;
    set.understated = 1.6;
    std::vector<IntegratedReflection> list = set.reflections();
    for (IntegratedReflection& r : list)
        r.sigma = 10;
    const DataReduction data = reduceData(list, 121, reciprocalOf(set.cell), 'P', 1 / 0.9);
    EXPECT_NEAR(data.errors.a, 1.6 * 1.6, 0.5);
    EXPECT_NEAR(data.errors.b * 10, 0.08 * 10, 0.12);
    // Weak reflections with too large uncertainties do not make those of strong ones too large.
    set.noise = 0.03;
    set.understated = 1;
    list = set.reflections();
    for (IntegratedReflection& r : list)
        r.sigma = std::hypot(12, r.sigma);
    const DataReduction cautious = reduceData(list, 121, reciprocalOf(set.cell), 'P', 1 / 0.9);
    EXPECT_EQ(cautious.errors.a, 1);
    EXPECT_LT(cautious.errors.b, 0.008);
    const DataReduction honest = DataSet{set.cell, 'P', "P 1 2 1"}.reduced();
    EXPECT_NEAR(honest.errors.a, 1, 0.1);
    EXPECT_LT(honest.errors.b, 0.012);
}

TEST(ScalingTest, marksOutliersWithTheirSource) {
    const DataSet set{{7.5, 7.5, 9.3, 90, 90, 90}, 'P', "P 4 2 2"};
    std::vector<IntegratedReflection> list = set.reflections();
    list[300].intensity += 4000;
    list[700].flags = kReflectionSaturated;
    const DataReduction data = reduceData(list, 121, reciprocalOf(set.cell), 'P', 1 / 0.9);
    EXPECT_EQ(data.outliers, 1);
    EXPECT_EQ(data.observations.size(), list.size() - 1);
    for (const Observation& one : data.observations)
        EXPECT_EQ(one.outlier, one.source == 300);
}

TEST(MergingTest, numbersAreThoseOfTheirDefinitions) {
    // Two pairs of Friedel mates and one single reflection.
    const auto one = [](Indices hkl, double intensity, double sigma) -> Observation {
        return {hkl, intensity, sigma, 10 / std::hypot(hkl[0], hkl[1], hkl[2])};
    };
    const std::vector<Observation> list = {one({1, 2, 0}, 100, 10), one({-1, -2, 0}, 130, 20),
                                           one({2, 0, 1}, 40, 10), one({-2, 0, -1}, 20, 10),
                                           one({0, 1, 2}, 70, 7)};
    const LaueRotations none = {IndexRotation()};
    const std::vector<MergedReflection> merged = merge(list, none);
    ASSERT_EQ(merged.size(), 3U);
    EXPECT_EQ(merged[1].hkl, (Indices{1, 2, 0}));
    EXPECT_NEAR(merged[1].intensity, (100 / 100.0 + 130 / 400.0) / (1 / 100.0 + 1 / 400.0), 1e-9);
    EXPECT_NEAR(merged[1].sigma, std::sqrt(1 / (1 / 100.0 + 1 / 400.0)), 1e-9);
    const MergingStatistics statistics =
        mergingStatistics(list, none, reciprocalOf({10, 10, 10, 90, 90, 90}), 'P', 10 / std::sqrt(5.0));
    const ShellStatistics& all = statistics.overall;
    EXPECT_EQ(all.observations, 5);
    EXPECT_EQ(all.unique, 3);
    // 100: 3, 110: 6, 111: 4, 200: 3, 210: 12 pairs of mates.
    EXPECT_EQ(all.possible, 28);
    EXPECT_NEAR(all.rInt, (15 + 15 + 10 + 10) / 290.0, 1e-9);
    EXPECT_NEAR(all.rMeas, std::sqrt(2.0) * all.rInt, 1e-9);
}

TEST(WilsonPosteriorTest, isTheMeanOverAllTrueIntensities) {
    using Row = std::tuple<double, double, double>;
    const Row rows[] = {{0, 1, 1},   {-3, 1, 5},     {-40, 2, 50},     {5, 1, 0.1},  {5, 2, 1000},
                        {90, 3, 40}, {1e4, 20, 300}, {-900, 100, 0.5}, {0.3, 0.5, 2}};
    for (const auto& [measured, sigma, expected] : rows)
        for (const bool centric : {false, true}) {
            // Every true amplitude, with its density times the likelihood of the measurement.
            const double end = std::sqrt(std::max(measured, 0.0) + 10 * sigma);
            double sum = 0, amplitude = 0, intensity = 0;
            for (int i = 0; i < 100000; ++i) {
                const double f = end * (i + 0.5) / 100000;
                const double off = (measured - f * f) / sigma;
                const double least = std::min(measured, 0.0) / sigma;
                const double weight = (centric ? 1 : f) * std::exp(-f * f / expected / (centric ? 2 : 1) -
                                                                   (off * off - least * least) / 2);
                sum += weight;
                amplitude += weight * f;
                intensity += weight * f * f;
            }
            const Estimate found = expectedAmplitude(measured, sigma, expected, centric);
            const double mean = amplitude / sum;
            EXPECT_NEAR(found.value / mean, 1, 2e-3) << measured << " " << sigma << " " << centric;
            EXPECT_NEAR(found.sigma / std::sqrt(intensity / sum - mean * mean), 1, 5e-3) << measured;
            if (centric) continue;
            EXPECT_NEAR(expectedIntensity(measured, sigma, expected) / (intensity / sum), 1, 5e-3)
                << measured << " " << sigma;
        }
}

TEST(AmplitudesTest, knowCentricReflectionsAndThoseThatOperationsDouble) {
    std::vector<MergedReflection> list;
    for (int h = 1; h <= 10; ++h)
        for (int l = -10; l <= 10; ++l)
            list.push_back({{h, 3, l}, 100, 40, 2, 1, {}});
    list.push_back({{3, 0, 4}, 100, 40, 2, 1, {}});
    list.push_back({{0, 3, 0}, 100, 40, 2, 1, {}});
    SpaceGroupAnalysis analysis;
    analysis.candidates.push_back({3, "P 1 2 1", "P 2y", false, 0, 0});
    estimateAmplitudes(list, analysis);
    // The mean is that of the general ones; 0k0 are twice as bright on average, h0l are centric.
    EXPECT_NEAR(list[0].amplitude.value, expectedAmplitude(100, 40, 99.8, false).value, 0.01);
    EXPECT_NEAR(list[210].amplitude.value, expectedAmplitude(100, 40, 99.8, true).value, 0.01);
    EXPECT_NEAR(list[211].amplitude.value, expectedAmplitude(100, 40, 199.5, false).value, 0.01);
    estimateAmplitudes(list, {});
    EXPECT_NEAR(list[210].amplitude.value, expectedAmplitude(100, 40, 100, false).value, 0.01);
}

TEST(WilsonPlotTest, FindsTheFallOffOfTheIntensities) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> s(0.05, 0.6);
    std::exponential_distribution<double> intensity(1.0);
    std::vector<MergedReflection> list(4000);
    for (MergedReflection& one : list) {
        const double half = s(random);
        one.spacing = 1 / (2 * half);
        one.intensity = 500 * intensity(random) * std::exp(-2 * 3.5 * half * half);
    }
    const WilsonPlot plot = wilsonPlot(list);
    EXPECT_NEAR(plot.b, 3.5, 0.35);
    EXPECT_NEAR(plot.lnScale, std::log(500.0), 0.1);
    ASSERT_EQ(plot.bins.size(), 20U);
    EXPECT_EQ(plot.bins.front().reflections, 200);
    EXPECT_LT(plot.bins.front().s2, plot.bins.back().s2);
    EXPECT_EQ(wilsonPlot(std::span(list).first(30)).b, 0) << "one bin makes no line";
}

TEST(MergingTest, ccHalfIsThatOfRandomHalves) {
    std::mt19937 random(6);
    std::normal_distribution<double> normal;
    std::exponential_distribution<double> wilson(1.0 / 100);
    std::vector<Observation> list;
    constexpr int kCount = 4000;
    Eigen::ArrayXd first(kCount), second(kCount);
    for (int i = 1; i <= kCount; ++i) {
        const double truth = wilson(random);
        for (const int sign : {1, -1}) {
            list.push_back({{sign * i, 0, 0}, truth + 80 * normal(random), 80, 2});
            (sign > 0 ? first : second)[i - 1] = list.back().intensity;
        }
    }
    first -= first.mean();
    second -= second.mean();
    const double halves = (first * second).sum() / std::sqrt(first.square().sum() * second.square().sum());
    const MergingStatistics statistics =
        mergingStatistics(list, {IndexRotation()}, reciprocalOf({10, 10, 10, 90, 90, 90}), 'P', 2);
    EXPECT_NEAR(statistics.overall.ccHalf, halves, 0.02);
}

TEST(SpaceGroupsTest, areRankedByWhatIsAbsent) {
    using Row = std::tuple<std::array<double, 6>, char, const char*>;
    const Row rows[] = {
        {{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "P 1 21/c 1"}, {{12.1, 8.3, 9.4, 90, 103, 90}, 'C', "C 1 2/c 1"},
        {{7.1, 8.3, 9.4, 90, 90, 90}, 'P', "P n m a"},     {{7.1, 8.3, 9.4, 90, 90, 90}, 'P', "P b c n"},
        {{9.1, 11.3, 13.4, 90, 90, 90}, 'F', "F d d d:2"}, {{9.5, 9.5, 9.3, 90, 90, 90}, 'I', "I 41/a:2"},
        {{7.5, 7.5, 11.3, 90, 90, 120}, 'R', "R -3 c:H"},  {{9.5, 9.5, 9.5, 90, 90, 90}, 'I', "I a -3 d"}};
    SoFar soFar;
    for (const auto& [cell, centring, group] : rows) {
        const DataReduction data = DataSet{cell, centring, group}.reduced();
        // Groups that differ by a centre of inversion alone forbid the same.
        const gemmi::SpaceGroup* truth = gemmi::find_spacegroup_by_name(group);
        const auto& candidates = data.spaceGroups.candidates;
        const auto found = std::find_if(candidates.begin(), candidates.end(), [&](const auto& candidate) {
            return candidate.symbol == truth->xhm();
        });
        ASSERT_NE(found, candidates.end()) << group;
        EXPECT_NEAR(found->evidence, candidates.front().evidence, 1e-9) << candidates.front().symbol;
        EXPECT_GT(found->evidence, 10);
        addTo(soFar, data);
    }
    EXPECT_NEAR(soFar.sum(), 58854.9294, 1e-3);
}

TEST(SpaceGroupsTest, conditionsTellTheirEvidence) {
    const DataReduction data = DataSet{{7.1, 8.3, 9.4, 90, 103, 90}, 'P', "P 1 21/c 1"}.reduced();
    int holding = 0;
    for (const ReflectionCondition& condition : data.spaceGroups.conditions) {
        const bool holds = (condition.reflections != "h00" && condition.condition == "l = 2n") ||
                           (condition.reflections == "0k0" && condition.condition == "k = 2n");
        EXPECT_EQ(condition.evidence > 0, holds) << condition.reflections << ' ' << condition.condition;
        EXPECT_GT(condition.violating, 2);
        if (!holds) continue;
        ++holding;
        EXPECT_LT(condition.ratio, 0.05);
        EXPECT_GT(condition.obeyingISigma, 5);
    }
    EXPECT_EQ(holding, 3);  // of the glide plane, the 00l in it, and of the screw axis
}

TEST(DataReductionTest, saysWhenNothingIsLeft) {
    std::vector<IntegratedReflection> blind(5, {.h = 1, .flags = kReflectionBlind, .sigma = 1, .spacing = 2});
    blind[4].flags = kReflectionSaturated;
    const Eigen::Matrix3d reciprocal = reciprocalOf({10, 10, 10, 90, 90, 90});
    const Refusal refusal = failureOf([&] { reduceData(blind, 10, reciprocal, 'P', 1); });
    EXPECT_EQ(refusal.kind, FailureKind::NothingFound);
    EXPECT_TRUE(refusal.says("of 5, 4 lie along the tilt axis, 1 are saturated, 0")) << refusal.text;
}

}  // namespace
