#include "pipeline/run/FurtherCrystals.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/latticesearch/FurtherLattice.h"

namespace vrk {
namespace {

/// Crystals are looked for where so many reflections are on none.
constexpr std::size_t kFewestLeft = 30;
/// Intensities that can be scaled and merged; with fewer, those of covered spots stay in.
constexpr std::ptrdiff_t kFewestReduced = 20;
/// Reflections within so many standard deviations of a coordinate belong to a node.
constexpr double kBelongs = 4.0;

/// Which reflections lie on the nodes of a lattice. Tighter than the tolerance of the indices, within which
/// one in eight reflections of any other crystal lies.
std::vector<bool> claimedBy(const RefinedPositions& refined) {
    const Lattice& lattice = refined.lattice.lattice;
    const double limit =
        std::clamp(kBelongs * refined.lattice.sigma, 1.0, 0.3 * std::max(lattice.shortestEdge(), 3.5));
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    std::vector<bool> claimed;
    claimed.reserve(refined.positions.size());
    for (const Eigen::Vector3d& position : refined.positions)
        claimed.push_back(distanceToNode(position, lattice, inverse) <= limit);
    return claimed;
}

std::vector<double> intensitiesOf(const Level& level) {
    std::vector<double> result;
    for (const FoundReflection& reflection : level.reflections)
        result.push_back(reflection.intensity);
    return result;
}

/// The stronger half of a list.
std::vector<bool> strongOnes(const Level& level) {
    const std::vector<double> intensities = intensitiesOf(level);
    const double middle = intensities.empty() ? 0.0 : medianOf(intensities);
    std::vector<bool> strong;
    for (const double intensity : intensities)
        strong.push_back(intensity >= middle);
    return strong;
}

/// What the crystals so far leave over, and what part of the strong reflections each explains.
class Remainder {
public:
    explicit Remainder(const Indexed& first)
        : m_first(first), m_left(first.level.reflections.size(), true), m_strong(strongOnes(first.level)) {
        std::vector<std::size_t> all(m_left.size());
        for (std::size_t i = 0; i < all.size(); ++i)
            all[i] = i;
        m_firstShare = take(all, claimedBy(first.refined));
    }

    double firstShare() const { return m_firstShare; }
    std::vector<std::size_t> numbers() const {
        std::vector<std::size_t> result;
        for (std::size_t i = 0; i < m_left.size(); ++i)
            if (m_left[i]) result.push_back(i);
        return result;
    }
    bool isLarge() const {
        std::size_t strong = 0, strongLeft = 0, left = 0;
        for (std::size_t i = 0; i < m_left.size(); ++i) {
            strong += m_strong[i];
            strongLeft += m_strong[i] && m_left[i];
            left += m_left[i];
        }
        const auto isOver = [](std::size_t part, std::size_t all) {
            return static_cast<double>(part) > kUnexplained * static_cast<double>(all);
        };
        return left >= kFewestLeft && (isOver(strongLeft, strong) || isOver(left, m_left.size()));
    }
    Level level() const {
        Level result = m_first.level;
        result.reflections.clear();
        for (const std::size_t i : numbers())
            result.reflections.push_back(m_first.level.reflections[i]);
        return result;
    }
    /// Relative to the origin, corrected for curvature and instrument.
    Points points() const {
        Points result;
        for (const std::size_t i : numbers())
            result.emplace_back(m_first.refined.positions[i] - m_first.lattice().origin);
        return result;
    }
    /// \param numbers  of the reflections that the claims are about
    /// \returns the share of the strong reflections that goes
    double take(const std::vector<std::size_t>& numbers, const std::vector<bool>& claimed) {
        double strong = 0.0, taken = 0.0;
        for (const bool one : m_strong)
            strong += one ? 1.0 : 0.0;
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            if (!claimed[i]) continue;
            m_left[numbers[i]] = false;
            taken += m_strong[numbers[i]] ? 1.0 : 0.0;
        }
        return strong > 0.0 ? taken / strong : 0.0;
    }

private:
    const Indexed& m_first;
    std::vector<bool> m_left;
    std::vector<bool> m_strong;
    double m_firstShare = 0.0;
};

/// A lattice indexed; nothing where it is none after all.
std::optional<Indexed> indexed(Level level, const LatticeChoice& choice, const Recording& recording,
                               Session& session) {
    std::vector<Level> levels;
    levels.push_back(std::move(level));
    try {
        return indexRecorded(std::move(levels), choice, recording, session);
    } catch (const Failure& failure) {
        if (failure.kind() != FailureKind::NothingFound) throw;
        return std::nullopt;
    }
}

/// The next crystal; nothing where there is none.
std::optional<FurtherCrystal> nextCrystal(const Indexed& first, const Remainder& left,
                                          const std::vector<Lattice>& known, const Recording& recording,
                                          const CrystalSearch& how, Session& session) {
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    const CellSearch search(searchOptions(how.cell, session));
    const std::optional<FurtherLattice> found = findFurtherLattice(left.points(), intensitiesOf(left.level()),
                                                                   known, how.anyCell ? &search : nullptr);
    if (!found) return std::nullopt;
    LatticeChoice choice;
    choice.best = found->candidate;
    choice.sense = first.refined.decided ? first.refined.sense : 0;
    std::optional<Indexed> answer = indexed(left.level(), choice, recording, session);
    if (!answer || answer->verdict.lattice == Confidence::Low) return std::nullopt;
    FurtherCrystal crystal{std::move(*answer), false, {}, 0.0, 0.0, {}};
    crystal.turn = turnBetween(first.lattice().basis, crystal.indexed.lattice().basis);
    crystal.sameCell = crystal.turn.has_value();
    return crystal;
}

/// Whether the lattice would be worth something if all that it leaves over belonged to others.
bool standsAlone(const Indexed& indexed) {
    LatticeEvidence evidence = indexed.evidence;
    evidence.elsewhere = 1.0 - std::min(evidence.indexedShare.value_or(1.0), evidence.score.fraction());
    return verdictOn(evidence).lattice != Confidence::Low;
}

/// Where and when a reflection is seen.
struct SeenSpot {
    double frame;
    double x;
    double y;
    double intensity;
};

std::vector<SeenSpot> placesOf(const IntegrationResult& integration) {
    std::vector<SeenSpot> places;
    for (const IntegratedReflection& one : integration.reflections)
        if (one.sigma > 0) places.push_back({one.frame, one.x, one.y, one.intensity});
    std::sort(places.begin(), places.end(),
              [](const SeenSpot& a, const SeenSpot& b) { return a.frame < b.frame; });
    return places;
}

/// Half the number of frames over which a reflection is seen.
double reachOf(const IntegrationResult& integration) {
    std::vector<double> counts;
    for (const PredictedReflection& one : integration.prediction.reflections)
        counts.push_back(0.5 * static_cast<double>(one.spotCount));
    return counts.empty() ? 1.0 : medianOf(std::move(counts));
}

/// Flags what the spots of another crystal touch unless they are much weaker.
void flagCovered(IntegrationResult& integration, const std::vector<SeenSpot>& others, double otherReach) {
    constexpr double kWeak = 0.03;
    const double distance = 4.0 * integration.extent.sigma;
    const double frames = std::max(1.0, 0.5 * (reachOf(integration) + otherReach));
    for (IntegratedReflection& one : integration.reflections) {
        auto other = std::lower_bound(others.begin(), others.end(), one.frame - frames,
                                      [](const SeenSpot& a, double frame) { return a.frame < frame; });
        for (; other != others.end() && other->frame <= one.frame + frames; ++other) {
            if (std::hypot(other->x - one.x, other->y - one.y) > distance) continue;
            if (other->intensity < std::max(kWeak * one.intensity, one.sigma)) continue;
            one.flags |= kReflectionShared;
            break;
        }
    }
}

/// The first crystal anew, as one part of a split one; nothing where its reflections lie close to its nodes
/// or no part stands out.
std::optional<Indexed> partOf(const Indexed& first, const Recording& recording, Session& session) {
    constexpr double kScattered = 0.8;  // voxels
    constexpr double kReach = 2.0;      // voxels
    constexpr double kCloser = 0.75;
    const RefinedLattice& average = first.refined.lattice;
    if (average.rms < kScattered) return std::nullopt;
    Points points;
    for (const Eigen::Vector3d& position : first.refined.positions)
        points.emplace_back(position - first.lattice().origin);
    const std::optional<Lattice> part = partOfSplit(first.lattice(), points);
    if (!part) return std::nullopt;
    LatticeChoice choice;
    choice.best.lattice = *part;
    choice.best.score = scoreLattice(points, *part);
    choice.sense = first.refined.decided ? first.refined.sense : 0;
    choice.tolerance = std::min(std::max(kReach / part->shortestEdge(), 0.06), choice.tolerance);
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    std::optional<Indexed> answer = indexed(first.level, choice, recording, session);
    if (!answer || answer->refined.lattice.sigma > kCloser * average.sigma) return std::nullopt;
    answer->cellThreshold = first.cellThreshold;
    return answer;
}

/// The first crystal on the level that gave its lattice, where a higher one was indexed: weak crystals have
/// no spots above that. Nothing where the reflections say another lattice or type there.
std::optional<Indexed> onWeakerReflections(const Indexed& first, const Recording& recording,
                                           Session& session) {
    if (!first.weaker) return std::nullopt;
    LatticeChoice choice;
    choice.best.lattice = first.lattice();
    choice.best.score = first.evidence.score;
    choice.sense = first.refined.decided ? first.refined.sense : 0;
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    std::optional<Indexed> answer = indexed(*first.weaker, choice, recording, session);
    if (!answer || !areAlike(first.lattice().basis, answer->lattice().basis) ||
        answer->symmetry().bravaisType != first.symmetry().bravaisType)
        return std::nullopt;
    answer->cellThreshold = first.cellThreshold;
    answer->evidence.rivalEvidence = first.evidence.rivalEvidence;
    answer->evidence.rival = first.evidence.rival;
    return answer;
}

Crystals searchedFrom(Indexed& first, const LatticeCandidate* rival, const Recording& recording,
                      const CrystalSearch& how, Session& session) {
    Remainder left(first);
    Crystals crystals;
    crystals.firstShare = left.firstShare();
    std::vector<Lattice> known = {first.lattice()};
    const double all = static_cast<double>(std::max<std::size_t>(first.level.reflections.size(), 1));
    double elsewhere = 0.0;
    while (static_cast<int>(known.size()) < how.most && left.isLarge() && standsAlone(first)) {
        session.checkCanceled();
        std::optional<FurtherCrystal> next = nextCrystal(first, left, known, recording, how, session);
        if (!next) break;
        const std::vector<bool> claimed = claimedBy(next->indexed.refined);
        next->share = static_cast<double>(std::count(claimed.begin(), claimed.end(), true)) / all;
        elsewhere += next->share;
        next->strongShare = left.take(left.numbers(), claimed);
        known.push_back(next->indexed.lattice());
        crystals.others.push_back(std::move(*next));
    }
    first.evidence.elsewhere = elsewhere;
    const auto isRival = [&](const Lattice& lattice) {
        return rival && areAlike(rival->lattice.basis, lattice.basis);
    };
    if (std::any_of(known.begin() + 1, known.end(), isRival)) first.evidence.rivalEvidence = 0.0;
    first.verdict = verdictOn(first.evidence);
    return crystals;
}

}  // namespace

Crystals findFurtherCrystals(Indexed& first, const LatticeCandidate* rival, const Recording& recording,
                             const CrystalSearch& how, Session& session) {
    Crystals crystals = searchedFrom(first, rival, recording, how, session);
    if (!crystals.others.empty() || how.most < 2) return crystals;
    if (std::optional<Indexed> part = partOf(first, recording, session)) {
        Crystals parts = searchedFrom(*part, nullptr, recording, how, session);
        if (!parts.others.empty()) {
            first = std::move(*part);
            return parts;
        }
    }
    std::optional<Indexed> weaker = onWeakerReflections(first, recording, session);
    if (!weaker) return crystals;
    Crystals weak = searchedFrom(*weaker, rival, recording, how, session);
    if (weak.others.empty() || weaker->verdict.lattice > first.verdict.lattice) return crystals;
    first = std::move(*weaker);
    return weak;
}

void separateCrystals(std::vector<Intensities*> crystals, const std::vector<char>& centrings,
                      std::size_t frames) {
    std::vector<std::vector<SeenSpot>> places;
    std::vector<double> reaches;
    for (const Intensities* one : crystals) {
        places.push_back(placesOf(one->integration));
        reaches.push_back(reachOf(one->integration));
    }
    for (std::size_t i = 0; i < crystals.size(); ++i) {
        IntegrationResult& integration = crystals[i]->integration;
        for (std::size_t j = 0; j < crystals.size(); ++j)
            if (i != j) flagCovered(integration, places[j], reaches[j]);
        const auto left = std::count_if(integration.reflections.begin(), integration.reflections.end(),
                                        [](const IntegratedReflection& one) { return one.good(); });
        if (left < kFewestReduced) continue;
        crystals[i]->reduction =
            reduceData(integration.reflections, frames, integration.fit.geometry.reciprocal, centrings[i],
                       integration.dMin);
    }
}

}  // namespace vrk
