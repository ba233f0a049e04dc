#include "pipeline/merging/CrystalMerge.h"

#include <Eigen/Cholesky>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <queue>
#include <set>
#include <tuple>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/integration/Equivalents.h"
#include "pipeline/integration/SeriesGeometry.h"
#include "pipeline/merging/CrystalAgreement.h"
#include "pipeline/merging/ReferenceCrystal.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr std::size_t kMostNamed = 10;
/// Crystals whose intensities are asked for the Laue group.
constexpr std::size_t kMostAsked = 100;
/// A group without rotations that the true one has costs some overlap when indices are made consistent, one
/// with rotations that it has not leaves crystals the wrong way round: so much evidence is not enough.
constexpr double kDoubtfulEvidence = 10;
/// A crystal spoils the data when delta CC1/2 is below both; the first is a crystal's share of so much.
constexpr double kLeastHarm = 0.03;
constexpr double kHarmInScatters = 4;
constexpr double kNormalScatter = 1.4826;
/// Crystals that are left out before the others are judged anew: one and this part of them.
constexpr double kLeftOutAtOnce = 0.05;
constexpr int kLaueCycles = 3;
constexpr int kRejectionCycles = 2;
constexpr std::size_t kCorrelatedSteps = 50;

Matrix3d metricOf(const std::array<double, 6>& c) {
    const double ab = c[0] * c[1] * std::cos(c[5] * kDegree), ac = c[0] * c[2] * std::cos(c[4] * kDegree);
    const double bc = c[1] * c[2] * std::cos(c[3] * kDegree);
    Matrix3d metric;
    metric << c[0] * c[0], ab, ac, ab, c[1] * c[1], bc, ac, bc, c[2] * c[2];
    return metric;
}

std::array<double, 6> cellOf(const Matrix3d& metric) {
    const Vector3d edges = metric.diagonal().cwiseSqrt();
    const auto angle = [&](int i, int j) {
        return std::acos(metric(i, j) / (edges[i] * edges[j])) / kDegree;
    };
    return {edges[0], edges[1], edges[2], angle(1, 2), angle(0, 2), angle(0, 1)};
}

/// Columns a*, b*, c*, 1/Angstrom.
Matrix3d reciprocalOf(const std::array<double, 6>& cell) {
    const Matrix3d lower = metricOf(cell).inverse().llt().matrixL();
    return lower.transpose();
}

/// The mean of a metric over the rotations of the lattice.
Matrix3d tied(const Matrix3d& metric, const LaueRotations& rotations) {
    const Matrix3d reciprocal = metric.inverse();
    Matrix3d sum = Matrix3d::Zero();
    for (const IndexRotation& rotation : rotations)
        sum += matrixOf(rotation).transpose() * reciprocal * matrixOf(rotation);
    return (sum / static_cast<double>(rotations.size())).inverse();
}

std::string cellText(const std::array<double, 6>& c) {
    return formatted("%.3f %.3f %.3f %.2f %.2f %.2f", c[0], c[1], c[2], c[3], c[4], c[5]);
}

std::string listOf(const std::vector<std::string>& lines) {
    std::string text;
    for (std::size_t i = 0; i < std::min(lines.size(), kMostNamed); ++i)
        text += "\n  " + lines[i];
    if (lines.size() > kMostNamed) text += formatted("\n  and %zu more", lines.size() - kMostNamed);
    return text;
}

class Merger {
public:
    Merger(std::span<const CrystalData> crystals, const MergeOptions& options, Session& session)
        : m_data(crystals.begin(), crystals.end()),
          m_count(crystals.size()),
          m_options(options),
          m_session(session) {}

    CrystalMerge merged() {
        takeCells();
        takeReference();
        LaueRotations laue = jointLaueGroup();
        for (int cycle = 0; cycle < kLaueCycles; ++cycle) {
            // What was left out no longer has a say in how the others are indexed.
            for (std::size_t before = 0; before != used().size();) {
                before = used().size();
                index(laue);
                scaleAndJudge(laue);
            }
            m_result.data.laue = laueGroupOfAll();
            if (m_result.data.laue.best().rotations == laue) break;
            laue = m_result.data.laue.best().rotations;
        }
        rejectOutliers(m_result.data.laue.best().rotations);
        reduce();
        warnOfDisagreement();
        return std::move(m_result);
    }

private:
    void takeCells();
    void refuseOtherCells(const std::vector<std::size_t>& others) const;
    void chooseMiddle();
    void takeReference();
    LaueRotations jointLaueGroup();
    void index(const LaueRotations& laue);
    void collect();
    void scaleAndJudge(const LaueRotations& laue);
    bool leaveOutStrangers();
    std::vector<std::size_t> worst(const CrystalAgreement& agreement, const LaueRotations& laue) const;
    bool leaveOutWorst(const CrystalAgreement& agreement, const LaueRotations& laue);
    LaueChoice laueGroupOfAll() const;
    void rejectOutliers(const LaueRotations& laue);
    void takeMeanCell();
    void reduce();
    void warnOfDisagreement();
    void follow();

    void leaveOut(std::size_t crystal, const std::string& reason) {
        MergedCrystal& one = m_result.crystals[crystal];
        one.used = false;
        one.reason = reason;
        m_session.warn(one.name + " is left out: " + reason);
    }
    std::vector<std::size_t> used() const {
        std::vector<std::size_t> list;
        for (std::size_t i = 0; i < m_result.crystals.size(); ++i)
            if (m_result.crystals[i].used) list.push_back(i);
        return list;
    }
    void refuseFewerThanTwo() const {
        if (used().size() < 2)
            throw Failure("fewer than two crystals are left to merge; 'vrk merge' says above why",
                          FailureKind::NothingFound);
    }

    std::vector<CrystalData> m_data;  ///< the reference behind the crystals
    std::size_t m_count;              ///< without the reference
    const MergeOptions& m_options;
    Session& m_session;
    CrystalMerge m_result;
    std::size_t m_first = 0;  ///< the crystal in whose base all are indexed: middle or reference
    CrystalCell m_common;
    Matrix3d m_reciprocal;                 ///< of the common base
    std::vector<Observation> m_collected;  ///< of the crystals used, in common indices, not scaled
};

void Merger::takeCells() {
    std::vector<CrystalCell> cells;
    for (const CrystalData& one : m_data) {
        cells.push_back(one.cell);
        MergedCrystal crystal;
        crystal.name = one.name;
        crystal.cell = one.cell;
        crystal.bravais = one.bravais;
        crystal.used = true;
        m_result.crystals.push_back(std::move(crystal));
    }
    CellClusterOptions options;
    options.cut = m_options.cellTolerance;
    m_result.cells = clusterCells(cells, options);
    std::vector<std::size_t> others;
    for (std::size_t i = 0; i < m_count; ++i)
        if (m_result.cells.clusterOf[i] != 0) others.push_back(i);
    if (!others.empty() && !m_options.leaveOut) refuseOtherCells(others);
    for (const std::size_t i : others)
        leaveOut(i, "its cell is another one, " + cellText(m_data[i].cell.cell));
    refuseFewerThanTwo();
    chooseMiddle();
}

void Merger::refuseOtherCells(const std::vector<std::size_t>& others) const {
    std::vector<std::string> lines;
    for (const std::size_t i : others)
        lines.push_back(m_data[i].name + ": " + m_data[i].bravais + ' ' + cellText(m_data[i].cell.cell));
    const CellCluster& cluster = m_result.cells.clusters.front();
    throw Failure(
        formatted("%zu of %zu crystals have another cell than the other %zu (%s %s):", others.size(), m_count,
                  cluster.crystals.size(), m_data[cluster.middle].bravais.c_str(),
                  cellText(m_data[cluster.middle].cell.cell).c_str()) +
            listOf(lines) +
            formatted("\nmerge them apart, leave them out with --leave-out, or take more than %g %% "
                      "for the same cell with --cell-tolerance",
                      100 * m_options.cellTolerance),
        FailureKind::Usage);
}

/// Of the crystals with the commonest type the one nearest to the middle of the cluster.
void Merger::chooseMiddle() {
    const CellCluster& cluster = m_result.cells.clusters.front();
    std::map<std::string, int> types;
    for (const std::size_t i : cluster.crystals)
        ++types[m_data[i].bravais];
    const auto commonest = std::max_element(types.begin(), types.end(),
                                            [](const auto& a, const auto& b) { return a.second < b.second; });
    double least = std::numeric_limits<double>::infinity();
    for (const std::size_t i : cluster.crystals)
        if (m_data[i].bravais == commonest->first && m_result.cells.fromMiddle[i] < least) {
            least = m_result.cells.fromMiddle[i];
            m_result.middle = i;
        }
    m_result.bravais = commonest->first;
    m_result.kiloVolts = m_data[m_result.middle].kiloVolts;
    m_first = m_result.middle;
    const ReducedCell middle(m_data[m_first].cell);
    for (const std::size_t i : used()) {
        m_result.crystals[i].fromMiddle = middle.distance(ReducedCell(m_data[i].cell));
        if (std::abs(m_data[i].kiloVolts / m_result.kiloVolts - 1) > 0.01)
            m_session.warn(m_data[i].name + formatted(" was recorded with %g kV, not with %g",
                                                      m_data[i].kiloVolts, m_result.kiloVolts));
    }
}

void Merger::takeReference() {
    if (!m_options.reference.empty()) {
        const CrystalData& middle = m_data[m_result.middle];
        CrystalData reference = readReferenceCrystal(m_options.reference, m_options.referenceCell, middle);
        const ReducedCell cell(reference.cell);
        if (cell.matches(ReducedCell(middle.cell), m_options.cellTolerance).empty())
            throw Failure("the cell of the reference, " + cellText(reference.cell.cell) +
                              ", is not that of the crystals, " + cellText(middle.cell.cell),
                          FailureKind::Usage);
        m_result.bravais = reference.bravais;
        m_data.push_back(std::move(reference));
        m_first = m_count;
    }
    m_common = m_data[m_first].cell;
    m_reciprocal = reciprocalOf(m_common.cell);
}

/// What the crystals say one by one, together. Of the groups that the evidence leaves the smallest.
LaueRotations Merger::jointLaueGroup() {
    const Stage stage(m_session, "symmetry");
    std::vector<std::size_t> asked = used();
    std::stable_sort(asked.begin(), asked.end(), [&](std::size_t a, std::size_t b) {
        return m_data[a].observations.size() > m_data[b].observations.size();
    });
    if (asked.size() > kMostAsked) asked.resize(kMostAsked);
    const ReducedCell common(m_common);
    std::map<LaueRotations, double> evidence;
    for (const std::size_t i : asked) {
        m_session.checkCanceled();
        const auto matches = common.matches(ReducedCell(m_data[i].cell), m_options.cellTolerance);
        if (matches.empty()) continue;
        const auto observations = reindexed(m_data[i].observations, matches.front().base);
        if (observations.empty()) continue;
        for (const LaueCandidate& candidate :
             chooseLaueGroup(observations, m_reciprocal, m_common.centring).candidates)
            evidence[candidate.rotations] += candidate.evidence;
    }
    double best = -std::numeric_limits<double>::infinity();
    for (const auto& [rotations, value] : evidence)
        best = std::max(best, value);
    LaueRotations chosen = {IndexRotation()};
    double reached = -std::numeric_limits<double>::infinity();
    std::size_t smallest = std::numeric_limits<std::size_t>::max();
    for (const auto& [rotations, value] : evidence) {
        if (value < best - kDoubtfulEvidence || rotations.size() > smallest) continue;
        if (rotations.size() == smallest && value <= reached) continue;
        smallest = rotations.size();
        reached = value;
        chosen = rotations;
    }
    return chosen;
}

void Merger::index(const LaueRotations& laue) {
    const Stage stage(m_session, "index");
    std::vector<std::size_t> numbers = used();
    if (m_first == m_count) numbers.push_back(m_count);
    std::vector<CrystalData> crystals;
    std::size_t first = 0;
    for (const std::size_t i : numbers) {
        if (i == m_first) first = crystals.size();
        crystals.push_back(m_data[i]);
    }
    // A middle crystal that was left out still says in which base all are.
    if (m_first != m_count && !m_result.crystals[m_first].used) {
        first = crystals.size();
        crystals.push_back(m_data[m_first]);
    }
    const auto indexing =
        indexConsistently(crystals, ReducedCell(m_common), first, laue, m_options.cellTolerance, m_session);
    for (std::size_t n = 0; n < numbers.size(); ++n) {
        if (numbers[n] == m_count) continue;
        m_result.crystals[numbers[n]].indexing = indexing[n];
        if (indexing[n].ways == 0)
            leaveOut(numbers[n],
                     "its cell fits the common one in no way, " + cellText(m_data[numbers[n]].cell.cell));
    }
    refuseFewerThanTwo();
}

void Merger::collect() {
    m_collected.clear();
    double finest = m_options.dMin;
    if (!(finest > 0)) {
        finest = std::numeric_limits<double>::infinity();
        for (const std::size_t i : used())
            if (m_data[i].dMin > 0) finest = std::min(finest, m_data[i].dMin);
        if (!std::isfinite(finest)) finest = 0;
    }
    double reached = std::numeric_limits<double>::infinity();
    for (const std::size_t i : used())
        for (Observation one : reindexed(m_data[i].observations, m_result.crystals[i].indexing.base)) {
            const Vector3d hkl(one.hkl[0], one.hkl[1], one.hkl[2]);
            one.spacing = 1 / (m_reciprocal * hkl).norm();
            if (!(one.spacing > finest) || !(one.sigma > 0) || !std::isfinite(one.intensity)) continue;
            one.frame = static_cast<double>(i);
            one.source = static_cast<std::uint32_t>(i);
            reached = std::min(reached, one.spacing);
            m_collected.push_back(one);
        }
    if (m_collected.empty())
        throw Failure(formatted("no crystal has a reflection with a spacing above %g Angstrom; try a smaller "
                                "--d-min",
                                finest),
                      FailureKind::NothingFound);
    m_result.dMin = finest > 0 ? finest : reached;
}

/// Crystals that share too little with the others to be scaled. \returns whether there were any
bool Merger::leaveOutStrangers() {
    constexpr int kFewestOfPair = 20;
    bool any = false;
    const std::vector<std::size_t> all = used();
    for (const std::size_t i : all)
        if (const int common = m_result.crystals[i].scale.common; common < kFewestOfPair) {
            leaveOut(i, formatted("it has %d observations in common with the others, too few for a scale",
                                  common));
            any = true;
        }
    refuseFewerThanTwo();
    return any;
}

/// Crystals that spoil the data, the worst first. What the others scatter by is seen without them.
std::vector<std::size_t> Merger::worst(const CrystalAgreement& agreement, const LaueRotations& laue) const {
    const std::vector<std::size_t> all = used();
    const auto count = static_cast<double>(all.size());
    // Of two crystals nobody can say which one is wrong.
    if (all.size() < 3) return {};
    std::vector<std::size_t> suspects;
    for (const std::size_t i : all)
        if (agreement.delta[i] < -kLeastHarm / count) suspects.push_back(i);
    std::stable_sort(suspects.begin(), suspects.end(),
                     [&](std::size_t a, std::size_t b) { return agreement.delta[a] < agreement.delta[b]; });
    const auto most = 1 + static_cast<std::size_t>(kLeftOutAtOnce * count);
    if (suspects.size() > most) suspects.resize(most);
    const auto isSuspect = [&](std::size_t crystal) {
        return std::find(suspects.begin(), suspects.end(), crystal) != suspects.end();
    };
    std::vector<Observation> rest;
    for (const Observation& one : m_result.data.observations)
        if (!isSuspect(one.source)) rest.push_back(one);
    const CrystalAgreement without = crystalAgreement(rest, m_result.crystals.size(), laue);
    std::vector<double> deltas, deviations;
    for (const std::size_t i : all)
        if (!isSuspect(i)) deltas.push_back(without.delta[i]);
    const double middle = medianOf(deltas);
    for (const double delta : deltas)
        deviations.push_back(std::abs(delta - middle));
    const double limit = middle - kHarmInScatters * kNormalScatter * medianOf(std::move(deviations));
    std::erase_if(suspects, [&](std::size_t crystal) { return agreement.delta[crystal] > limit; });
    return suspects;
}

/// \returns whether crystals spoil the data and were left out
bool Merger::leaveOutWorst(const CrystalAgreement& agreement, const LaueRotations& laue) {
    for (const std::size_t i : used())
        m_result.crystals[i].deltaCcHalf = agreement.delta[i];
    const std::vector<std::size_t> list = worst(agreement, laue);
    for (const std::size_t i : list) {
        const std::string reason = formatted("without it CC1/2 is %.3f instead of %.3f",
                                             agreement.ccHalf - agreement.delta[i], agreement.ccHalf);
        if (m_options.keepAll)
            m_result.crystals[i].reason = reason;
        else
            leaveOut(i, reason);
    }
    return !list.empty() && !m_options.keepAll;
}

void Merger::scaleAndJudge(const LaueRotations& laue) {
    const Stage stage(m_session, "scale");
    for (bool changed = true; changed;) {
        m_session.checkCanceled();
        collect();
        const auto scales = scaleCrystals(m_collected, m_result.crystals.size(), laue);
        for (std::size_t i = 0; i < scales.size(); ++i)
            m_result.crystals[i].scale = scales[i];
        if (leaveOutStrangers()) continue;
        m_result.data.observations = m_collected;
        applyScales(m_result.data.observations, scales);
        m_result.data.errors = fitErrors(m_result.data.observations, laue);
        applyErrors(m_result.data.observations, laue, m_result.data.errors);
        const CrystalAgreement agreement =
            crystalAgreement(m_result.data.observations, m_result.crystals.size(), laue);
        m_result.ccHalf = agreement.ccHalf;
        changed = leaveOutWorst(agreement, laue);
    }
}

/// What the data set says, its Friedel mates merged.
LaueChoice Merger::laueGroupOfAll() const {
    std::vector<Observation> unique;
    for (const MergedReflection& one : merge(m_result.data.observations, {IndexRotation()})) {
        Observation observation;
        observation.hkl = one.hkl;
        observation.intensity = one.intensity;
        observation.sigma = one.sigma;
        observation.spacing = one.spacing;
        unique.push_back(observation);
    }
    return chooseLaueGroup(unique, m_reciprocal, m_common.centring);
}

void Merger::rejectOutliers(const LaueRotations& laue) {
    DataReduction& data = m_result.data;
    std::vector<Observation> before = m_collected;
    for (int cycle = 0; cycle < kRejectionCycles; ++cycle) {
        // Outliers of the last cycle do not take part, but are judged again.
        const auto scales = scaleCrystals(before, m_result.crystals.size(), laue);
        for (const std::size_t i : used())
            m_result.crystals[i].scale = scales[i];
        data.observations = before;
        applyScales(data.observations, scales);
        data.errors = fitErrors(data.observations, laue);
        for (Observation& one : data.observations)
            one.outlier = false;
        applyErrors(data.observations, laue, data.errors);
        data.outliers = markOutliers(data.observations, laue);
        for (std::size_t i = 0; i < before.size(); ++i)
            before[i].outlier = data.observations[i].outlier;
    }
    for (const Observation& one : data.observations) {
        ++m_result.crystals[one.source].observations;
        if (one.outlier) ++m_result.crystals[one.source].outliers;
    }
    m_result.ccHalf = crystalAgreement(data.observations, m_result.crystals.size(), laue).ccHalf;
}

void Merger::takeMeanCell() {
    const LaueRotations rotations = latticeRotations(m_reciprocal, m_common.centring);
    Matrix3d mean = Matrix3d::Zero();
    std::vector<std::array<double, 6>> cells;
    for (const std::size_t i : used()) {
        const Matrix3d& base = m_result.crystals[i].indexing.base;
        const Matrix3d metric = tied(base.transpose() * metricOf(m_data[i].cell.cell) * base, rotations);
        mean += metric;
        cells.push_back(cellOf(metric));
    }
    const auto count = static_cast<double>(cells.size());
    m_result.cell = {cellOf(mean / count), m_common.centring};
    for (std::size_t k = 0; k < 6; ++k) {
        double squares = 0;
        for (const auto& cell : cells)
            squares += std::pow(cell[k] - m_result.cell.cell[k], 2) / (count - 1);
        const double sigma = std::sqrt(squares / count);
        m_result.cellSigma[k] = sigma > 1e-9 ? sigma : 0;
    }
}

void Merger::reduce() {
    const Stage stage(m_session, "merge");
    DataReduction& data = m_result.data;
    const LaueRotations& rotations = data.laue.best().rotations;
    takeMeanCell();
    const Matrix3d reciprocal = reciprocalOf(m_result.cell.cell);
    const char centring = m_common.centring;
    for (Observation& one : data.observations)
        one.spacing = 1 / (reciprocal * Vector3d(one.hkl[0], one.hkl[1], one.hkl[2])).norm();
    data.merged = merge(data.observations, rotations);
    data.statistics = mergingStatistics(data.observations, rotations, reciprocal, centring, m_result.dMin);
    data.friedelStatistics =
        mergingStatistics(data.observations, {IndexRotation()}, reciprocal, centring, m_result.dMin);
    data.wilson = wilsonPlot(data.merged);
    data.spaceGroups = analyseSpaceGroups(data.merged, rotations, centring);
    estimateAmplitudes(data.merged, data.spaceGroups);
    follow();
}

/// Where no crystal agrees with the others, none can be told to be the stranger. Halves of the crystals agree
/// to some degree in the fall-off with the resolution alone, the correlations of the indexing do not.
void Merger::warnOfDisagreement() {
    constexpr double kLittle = 0.5, kLittleOfPairs = 0.4;
    double sum = 0, common = 0;
    for (const std::size_t i : used()) {
        const CrystalIndexing& one = m_result.crystals[i].indexing;
        sum += one.common * one.correlation;
        common += one.common;
    }
    const double ofPairs = common > 0 ? sum / common : 0;
    if (m_result.ccHalf > kLittle && ofPairs > kLittleOfPairs) return;
    m_session.warn(formatted(
        "the intensities of the crystals agree little: halves of them correlate by %.2f, pairs by %.2f "
        "apart from the fall-off with the resolution. Crystals with like cells may have different "
        "structures, or hardly anything was measured but noise",
        m_result.ccHalf, ofPairs));
}

/// Crystal after crystal, the one that brings the most first.
void Merger::follow() {
    const DataReduction& data = m_result.data;
    const LaueRotations& rotations = data.laue.best().rotations;
    std::vector<std::vector<std::size_t>> uniqueOf(m_result.crystals.size());
    const auto groups = equivalents(data.observations, rotations);
    for (std::size_t unique = 0; unique < groups.size(); ++unique)
        for (const std::uint32_t i : groups[unique])
            uniqueOf[data.observations[i].source].push_back(unique);
    std::vector<bool> known(groups.size(), false);
    const auto brings = [&](std::size_t crystal) {
        std::set<std::size_t> fresh;
        for (const std::size_t unique : uniqueOf[crystal])
            if (!known[unique]) fresh.insert(unique);
        return fresh.size();
    };
    // What a crystal brings only falls: one that brings the most still, after a new count, is the next.
    std::priority_queue<std::tuple<std::size_t, std::size_t, std::size_t>> queue;
    const std::size_t last = m_result.crystals.size();
    for (const std::size_t i : used())
        queue.emplace(brings(i), last - i, i);
    const auto possible = static_cast<double>(std::max(data.statistics.overall.possible, 1));
    const std::size_t every = 1 + queue.size() / kCorrelatedSteps;
    std::vector<bool> in(m_result.crystals.size(), false);
    double reflections = 0, total = 0;
    while (!queue.empty()) {
        m_session.checkCanceled();
        const auto [before, order, crystal] = queue.top();
        queue.pop();
        const std::size_t now = brings(crystal);
        if (now < before && !queue.empty()) {
            queue.emplace(now, order, crystal);
            continue;
        }
        for (const std::size_t unique : uniqueOf[crystal])
            known[unique] = true;
        in[crystal] = true;
        reflections += static_cast<double>(now);
        total += static_cast<double>(uniqueOf[crystal].size());
        GrowthStep step = {crystal, reflections / possible, total / std::max(reflections, 1.0),
                           std::numeric_limits<double>::quiet_NaN()};
        if ((m_result.growth.size() + 1) % every == 0 || queue.empty()) {
            std::vector<Observation> present;
            for (const Observation& one : data.observations)
                if (in[one.source]) present.push_back(one);
            step.ccHalf = crystalAgreement(present, m_result.crystals.size(), rotations).ccHalf;
        }
        m_result.growth.push_back(step);
    }
}

}  // namespace

CrystalMerge mergeCrystals(std::span<const CrystalData> crystals, const MergeOptions& options,
                           Session& session) {
    constexpr double kMostTolerance = 0.07;
    if (!(options.cellTolerance > 0 && options.cellTolerance <= kMostTolerance))
        throw Failure("cells are the same up to a strain above 0 and up to 7 %", FailureKind::Usage);
    if (options.referenceCell && options.reference.empty())
        throw Failure("the cell of a reference needs the reference, an HKL file", FailureKind::Usage);
    if (crystals.size() < 2)
        throw Failure("merging needs two crystals at least; give the folders of several runs",
                      FailureKind::Usage);
    return Merger(crystals, options, session).merged();
}

}  // namespace vrk
