#include "pipeline/latticesearch/CellSearch.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <numbers>
#include <numeric>

#include "foundation/SharedLoop.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "pipeline/latticesearch/LayerSearch.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

/// More difference vectors than this make the clustering slow without making it better.
constexpr double kMostVectors = 250000.0;
/// So many of the strongest points judge a candidate; the winner is fitted to all.
constexpr std::size_t kJudges = 2500;
/// Reflections this close, in voxels, touch their neighbours.
constexpr double kCloseNodes = 9.0;
constexpr std::size_t kStrongestClusters = 40;
constexpr std::size_t kKeptTriplets = 30;
constexpr std::size_t kKeptCandidates = 5;

struct Centre {
    Vector3d place;
    double count;
};

Points strongest(const Points& points, const std::vector<double>& weights, std::size_t most) {
    std::vector<std::size_t> order(points.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    if (weights.size() == points.size())
        std::stable_sort(order.begin(), order.end(),
                         [&](std::size_t a, std::size_t b) { return weights[a] > weights[b]; });
    order.resize(std::min(order.size(), most));
    Points chosen;
    for (std::size_t index : order)
        chosen.push_back(points[index]);
    return chosen;
}

/// How many pairs are closer than a distance, estimated from a sample.
double pairsWithin(const Points& points, double distance) {
    const std::size_t step = std::max<std::size_t>(1, points.size() / 200);
    double count = 0.0;
    double sampled = 0.0;
    for (std::size_t i = 0; i < points.size(); i += step, sampled += 1.0)
        for (const Vector3d& other : points)
            count += (other - points[i]).squaredNorm() < distance * distance;
    return 0.5 * (count / std::max(sampled, 1.0) - 1.0) * static_cast<double>(points.size());
}

std::vector<Centre> centresOf(const CellSteps& steps) {
    std::vector<Centre> centres;
    for (auto* cluster : steps.clusters())
        centres.push_back(
            {{cluster->getCenterOfGrafity(0), cluster->getCenterOfGrafity(1), cluster->getCenterOfGrafity(2)},
             static_cast<double>(cluster->getNumberOfPoints())});
    std::stable_sort(centres.begin(), centres.end(),
                     [](const Centre& a, const Centre& b) { return a.count > b.count; });
    return centres;
}

/// The base that steps four and five select; nothing when they find none.
std::optional<Matrix3d> selectedBase(CellSteps& steps) {
    if (steps.clusters().size() < 3) return std::nullopt;
    std::optional<Matrix3d> basis = steps.chosen();
    if (basis) basis = steps.shortened(*basis);
    return basis && std::abs(basis->determinant()) > 1.0 ? basis : std::nullopt;
}

/// The bases that three of the strongest cluster centres form, the best explanation of all centres first.
std::vector<Matrix3d> tripletBases(const std::vector<Centre>& centres, double radius) {
    const std::size_t strong = std::min(centres.size(), kStrongestClusters);
    const std::size_t judges = std::min(centres.size(), 2 * kStrongestClusters);
    double total = 0.0;
    for (std::size_t i = 0; i < judges; ++i)
        total += centres[i].count;

    std::vector<std::pair<double, Matrix3d>> bases;
    for (std::size_t i = 0; i < strong; ++i)
        for (std::size_t j = i + 1; j < strong; ++j)
            for (std::size_t k = j + 1; k < strong; ++k) {
                Matrix3d basis;
                basis << centres[i].place, centres[j].place, centres[k].place;
                const double volume = std::abs(basis.determinant());
                const double edges = basis.colwise().norm().prod();
                if (volume < 15.0 || volume < 0.15 * edges) continue;
                const Lattice lattice{basis, Vector3d::Zero()};
                const Matrix3d inverse = basis.inverse();
                double indexed = 0.0;
                for (std::size_t c = 0; c < judges; ++c)
                    if (distanceToNode(centres[c].place, lattice, inverse) <= radius)
                        indexed += centres[c].count;
                const double chance =
                    std::min(0.5, 4.0 / 3.0 * std::numbers::pi * radius * radius * radius / volume);
                const double evidence =
                    evidenceOf(static_cast<int>(std::lround(1000.0 * indexed / total)), 1000, chance);
                if (evidence > 0.0) bases.emplace_back(evidence, basis);
            }
    std::stable_sort(bases.begin(), bases.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });

    std::vector<Matrix3d> kept;
    for (const auto& [evidence, basis] : bases) {
        const Matrix3d shortest = reduced(basis);
        const bool known = std::any_of(kept.begin(), kept.end(), [&](const Matrix3d& other) {
            return sameLattice(shortest, other, 0.12);
        });
        if (!known) kept.push_back(shortest);
        if (kept.size() == kKeptTriplets) break;
    }
    return kept;
}

void sortByEvidence(std::vector<LatticeCandidate>& candidates) {
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const LatticeCandidate& a, const LatticeCandidate& b) {
                         return a.score.evidence > b.score.evidence;
                     });
}

/// Every lattice once, the best first.
void keepDistinct(std::vector<LatticeCandidate>& candidates, std::size_t most) {
    sortByEvidence(candidates);
    std::vector<LatticeCandidate> kept;
    for (LatticeCandidate& candidate : candidates) {
        const bool known = std::any_of(kept.begin(), kept.end(), [&](const LatticeCandidate& other) {
            return sameLattice(candidate.lattice.basis, other.lattice.basis, 0.1);
        });
        if (!known && candidate.score.evidence > 0.0) kept.push_back(std::move(candidate));
        if (kept.size() == most) break;
    }
    candidates = std::move(kept);
}

/// A length as it is printed.
double rounded(double length) {
    return std::round(100.0 * length) / 100.0;
}

/// As many of the strongest as give a number of difference vectors that can be clustered.
void thinOut(Points& points, double maxLength) {
    while (pairsWithin(points, maxLength) > kMostVectors)
        points.resize(points.size() * 3 / 4);
}

/// The steps with one trial after another. Trials that differ in how they cluster share the vectors.
class TrialSteps {
public:
    explicit TrialSteps(const Points& judges) : m_judges(judges) {}

    /// \param trial  is told how many points it took
    CellSteps& of(CellSearchTrial& trial, const Parameter& parameter) {
        if (m_steps && m_minLength == trial.minLength && m_maxLength == trial.maxLength) {
            m_steps->cluster(parameter);
        } else {
            m_used = m_judges;
            thinOut(m_used, trial.maxLength);
            m_steps.emplace(m_used, parameter, trial.clustering);
        }
        m_minLength = trial.minLength;
        m_maxLength = trial.maxLength;
        trial.reflections = m_used.size();
        return *m_steps;
    }

private:
    const Points& m_judges;
    Points m_used;
    std::optional<CellSteps> m_steps;
    double m_minLength = 0.0;
    double m_maxLength = 0.0;
};

LatticeCandidate judged(const Matrix3d& basis, const Points& judges, const CellSearchTrial& trial) {
    LatticeCandidate candidate{{basis, Vector3d::Zero()}, {}, trial};
    candidate.score = scoreLattice(judges, candidate.lattice);
    const Lattice fitted = fitWithin(judges, candidate.lattice, std::max(1.0, 1.5 * candidate.score.radius));
    const LatticeScore score = scoreLattice(judges, fitted);
    if (score.evidence > candidate.score.evidence) {
        candidate.lattice = fitted;
        candidate.score = score;
    }
    return candidate;
}

/// For the best candidates, the lattices that share two of their vectors, or the direction of one, and have
/// the period in between from all points.
void addPeriodicBases(const Points& judges, std::vector<LatticeCandidate>& candidates) {
    const std::size_t count = std::min<std::size_t>(candidates.size(), 3);
    for (std::size_t i = 0; i < count; ++i) {
        const Lattice lattice = candidates[i].lattice;
        const CellSearchTrial trial = candidates[i].trial;
        for (int third = 0; third < 3; ++third) {
            std::vector<Matrix3d> bases = basesFromLayers(judges, lattice.basis.col((third + 1) % 3),
                                                          lattice.basis.col((third + 2) % 3));
            const std::vector<Matrix3d> fromRows = basesFromRows(judges, lattice, third);
            bases.insert(bases.end(), fromRows.begin(), fromRows.end());
            for (const Matrix3d& basis : bases)
                candidates.push_back(judged(reduced(basis), judges, trial));
        }
    }
}

}  // namespace

double neighbourDistance(const Points& points, std::size_t k) {
    if (points.size() <= k) return 0.0;
    const std::size_t step = std::max<std::size_t>(1, points.size() / 300);
    std::vector<double> kth((points.size() + step - 1) / step);
    VRK::shareItems(kth.size(), [&](std::size_t item, std::size_t) {
        // The point itself is the nearest.
        std::vector<double> nearest(k + 1, std::numeric_limits<double>::infinity());
        for (const Vector3d& point : points) {
            const double square = (point - points[item * step]).squaredNorm();
            if (!(square < nearest.back())) continue;
            std::size_t place = k;
            for (; place > 0 && square < nearest[place - 1]; --place)
                nearest[place] = nearest[place - 1];
            nearest[place] = square;
        }
        kth[item] = std::sqrt(nearest.back());
    });
    const auto middle = kth.begin() + static_cast<std::ptrdiff_t>(kth.size() / 2);
    std::nth_element(kth.begin(), middle, kth.end());
    return *middle;
}

std::vector<CellSearchTrial> CellSearch::trials(const Points& points) const {
    // Along densely occupied rows the nearest neighbours are a fraction of the longest base vector, hence the
    // wide range of multiples.
    const double spacing = std::clamp(neighbourDistance(points, 4), 4.0, 80.0);
    std::vector<CellSearchTrial> trials;
    for (const double multiple : {1.6, 2.6, 4.5})
        for (const double eps : {0.7, 1.2, 2.0}) {
            // FSC finds its radius itself.
            if (m_options.clustering == ClusteringMethod::FSC && eps != 1.2) continue;
            CellSearchTrial trial;
            trial.clustering = m_options.clustering;
            const double longest = std::max(multiple * spacing, 2.0 * m_options.minLength.value_or(0.0));
            trial.maxLength = m_options.maxLength.value_or(rounded(longest));
            const double shortest = std::min(std::clamp(0.2 * spacing, 1.8, 3.5), 0.5 * trial.maxLength);
            trial.minLength = m_options.minLength.value_or(rounded(shortest));
            trial.eps = m_options.eps.value_or(eps);
            if (!m_options.eps && m_options.clustering != ClusteringMethod::FSC && eps > 0.35 * spacing)
                continue;
            const double vectors = pairsWithin(points, trial.maxLength);
            const double sphere = std::pow(trial.eps, 3) / (0.5 * std::pow(trial.maxLength, 3));
            const double expected = vectors * sphere;
            trial.minPts = m_options.minPts.value_or(
                std::max(5, static_cast<int>(std::lround(2.0 * expected + 4.0 * std::sqrt(expected)))));
            const auto same = [&](const CellSearchTrial& t) {
                return t.maxLength == trial.maxLength && t.eps == trial.eps;
            };
            if (std::none_of(trials.begin(), trials.end(), same)) trials.push_back(trial);
        }
    return trials;
}

CellSearchTrial CellSearch::firstTrial(const Points& points, const std::vector<double>& weights) const {
    Points used = strongest(points, weights, kJudges);
    CellSearchTrial trial = trials(used).front();
    thinOut(used, trial.maxLength);
    trial.reflections = used.size();
    return trial;
}

bool CellSearch::fixesEverything() const {
    const bool isDense = m_options.clustering == ClusteringMethod::FSC || (m_options.eps && m_options.minPts);
    return m_options.minLength && m_options.maxLength && isDense;
}

std::optional<LatticeCandidate> CellSearch::repeat(const LatticeCandidate& candidate, const Points& points,
                                                   const std::vector<double>& weights) const {
    if (fixesEverything()) return candidate;
    constexpr double same = 0.02;  // of the edges
    CellSearchOptions fixed = m_options;
    fixed.minLength = candidate.trial.minLength;
    fixed.maxLength = candidate.trial.maxLength;
    fixed.eps = candidate.trial.eps;
    fixed.minPts = candidate.trial.minPts;
    const std::vector<LatticeCandidate> found = CellSearch(fixed).search(points, weights);
    if (found.empty() || !sameLattice(found[0].lattice.basis, candidate.lattice.basis, same))
        return std::nullopt;
    return found[0];
}

Parameter CellSearch::parameterOf(const CellSearchTrial& trial) const {
    Parameter parameter;
    parameter.setWhichReflectionMiddleShouldUsed(2);
    parameter.setMinLength(trial.minLength);
    parameter.setMaxLength(trial.maxLength);
    parameter.setDBSCANEps(trial.eps);
    parameter.setDBSCANMinPts(trial.minPts);
    if (m_options.adjust) m_options.adjust(parameter);
    return parameter;
}

std::unique_ptr<CellSteps> CellSearch::stepsOf(const LatticeCandidate& candidate, const Points& points,
                                               const std::vector<double>& weights) const {
    return std::make_unique<CellSteps>(strongest(points, weights, candidate.trial.reflections),
                                       parameterOf(candidate.trial), candidate.trial.clustering);
}

std::vector<LatticeCandidate> CellSearch::search(const Points& points,
                                                 const std::vector<double>& weights) const {
    std::vector<LatticeCandidate> candidates;
    if (points.size() < 12) return candidates;
    const Points judges = strongest(points, weights, kJudges);
    int agreements = 0;
    const std::vector<CellSearchTrial> all = trials(judges);
    TrialSteps trialSteps(judges);
    for (std::size_t i = 0; i < all.size(); ++i) {
        CellSearchTrial trial = all[i];
        if (m_options.canceled && m_options.canceled()) return {};
        if (m_options.progressed)
            m_options.progressed(static_cast<double>(i) / static_cast<double>(all.size()));
        const double before = candidates.empty() ? 0.0 : candidates.front().score.evidence;
        CellSteps& steps = trialSteps.of(trial, parameterOf(trial));
        for (const Matrix3d& basis : tripletBases(centresOf(steps), std::max(0.6, 0.6 * trial.eps)))
            candidates.push_back(judged(basis, judges, trial));
        if (const std::optional<Matrix3d> basis = selectedBase(steps))
            candidates.push_back(judged(reduced(*basis), judges, trial));
        keepDistinct(candidates, 2 * kKeptCandidates);
        // Parameter sets that find nothing better than what explains most points already need no further
        // ones.
        if (before > 0.0 && candidates.front().score.evidence < 1.02 * before &&
            candidates.front().score.fraction() > 0.4)
            ++agreements;
        if (agreements == 2) break;
    }
    keepDistinct(candidates, kKeptCandidates);
    // Only close nodes need it, or a search that went wrong.
    if (!candidates.empty() && (candidates.front().lattice.shortestEdge() < kCloseNodes ||
                                candidates.front().score.fraction() < 0.5))
        addPeriodicBases(judges, candidates);
    keepDistinct(candidates, kKeptCandidates);
    for (LatticeCandidate& candidate : candidates) {
        candidate.lattice = settleMultiples(judges, candidate.lattice);
        candidate.lattice = fitWithin(points, candidate.lattice, std::max(1.0, candidate.score.radius));
        candidate.lattice.basis = reduced(candidate.lattice.basis);
        candidate.score = scoreLattice(points, candidate.lattice);
    }
    keepDistinct(candidates, kKeptCandidates);
    return candidates;
}

}  // namespace vrk
