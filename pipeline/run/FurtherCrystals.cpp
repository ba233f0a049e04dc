#include "pipeline/run/FurtherCrystals.h"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <span>
#include <utility>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/latticesearch/FurtherLattice.h"
#include "pipeline/run/SymmetryChoice.h"

namespace vrk {
namespace {

/// Crystals are looked for where so many reflections are on none.
constexpr std::size_t kFewestLeft = 30;
/// Intensities that can be scaled and merged; with fewer, those of covered spots stay in.
constexpr std::ptrdiff_t kFewestReduced = 20;
/// Reflections within so many standard deviations of a coordinate belong to a node.
constexpr double kBelongs = 4.0;
/// Of the fractional indices, but those of a part of a split crystal.
constexpr double kTolerance = 0.25;

/// Which places lie on the nodes of a lattice. Tighter than the tolerance of the indices, within which one in
/// eight reflections of any other crystal lies.
std::vector<bool> claimedBy(const RefinedLattice& refined, std::span<const Eigen::Vector3d> places) {
    const Lattice& lattice = refined.lattice;
    const double limit =
        std::clamp(kBelongs * refined.sigma, 1.0, 0.3 * std::max(lattice.shortestEdge(), 3.5));
    const Eigen::Matrix3d inverse = lattice.basis.inverse();
    std::vector<bool> claimed;
    claimed.reserve(places.size());
    for (const Eigen::Vector3d& place : places)
        claimed.push_back(distanceToNode(place, lattice, inverse) <= limit);
    return claimed;
}

std::vector<bool> claimedBy(const RefinedPositions& refined) {
    return claimedBy(refined.lattice, refined.positions);
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
        const bool isOtherType = choice.type && failure.kind() == FailureKind::Usage;
        if (failure.kind() != FailureKind::NothingFound && !isOtherType) throw;
        return std::nullopt;
    }
}

/// Whether there is a crystal, whatever an ellipse that nobody knows does to its edges and angles, and of
/// whatever type.
bool isCrystal(LatticeEvidence evidence) {
    evidence.ellipseUnknown = false;
    evidence.higherType.clear();
    return verdictOn(evidence).lattice != Confidence::Low;
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
    if (!answer || !isCrystal(answer->evidence)) return std::nullopt;
    FurtherCrystal crystal{std::move(*answer), false, {}, 0.0, 0.0, {}};
    crystal.turn = turnBetween(first.lattice().basis, crystal.indexed.lattice().basis);
    crystal.sameCell = crystal.turn.has_value();
    return crystal;
}

/// Whether the lattice would be worth something if all that it leaves over belonged to others.
bool standsAlone(const Indexed& indexed) {
    LatticeEvidence evidence = indexed.evidence;
    evidence.elsewhere = 1.0 - std::min(evidence.indexedShare.value_or(1.0), evidence.score.fraction());
    return isCrystal(evidence);
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

/// A start for the same lattice on other reflections.
LatticeChoice latticeOf(const Indexed& answer) {
    LatticeChoice choice;
    choice.best.lattice = answer.lattice();
    choice.best.score = answer.evidence.score;
    choice.sense = answer.refined.decided ? answer.refined.sense : 0;
    return choice;
}

/// Of the indices of a part of a split crystal: what lies farther off belongs to the other part.
double toleranceOfPart(const Lattice& part) {
    constexpr double kReach = 2.0;  // voxels
    return std::min(std::max(kReach / part.shortestEdge(), 0.06), kTolerance);
}

/// The first crystal anew, as one part of a split one; nothing where its reflections lie close to its nodes
/// or no part stands out.
std::optional<Indexed> partOf(const Indexed& first, const Recording& recording, Session& session) {
    constexpr double kScattered = 0.8;  // voxels
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
    choice.tolerance = toleranceOfPart(*part);
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
    const LatticeChoice choice = latticeOf(first);
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

/// Those that lie on the nodes of a first crystal and of no other.
Level ownReflections(const Indexed& first, const std::vector<FurtherCrystal>& others) {
    std::vector<bool> own = claimedBy(first.refined);
    for (const FurtherCrystal& other : others) {
        const std::vector<bool> shared = claimedBy(other.indexed.refined.lattice, first.refined.positions);
        for (std::size_t i = 0; i < own.size(); ++i)
            own[i] = own[i] && !shared[i];
    }
    Level result = first.level;
    result.reflections.clear();
    for (std::size_t i = 0; i < own.size(); ++i)
        if (own[i]) result.reflections.push_back(first.level.reflections[i]);
    return result;
}

/// Where the reflections of a level lie when curvature and instrument are those of an answer.
std::vector<Eigen::Vector3d> placesBy(const Indexed& answer, const Level& level, const Recording& recording) {
    const Lattice& lattice = answer.lattice();
    const EwaldCurvature curvature(lattice.pixelSize > 0.0 ? recording.space.wavelength : 0.0,
                                   lattice.pixelSize);
    const InstrumentModel::Mapping toReciprocal(answer.instrument.model);
    std::vector<Eigen::Vector3d> places = level.positions();
    const std::vector<double> tilts = level.tilts();
    for (std::size_t i = 0; i < places.size(); ++i)
        if (answer.instrument.valid)
            places[i] =
                toReciprocal(PatternPlace::of(places[i] - recording.centre, tilts[i])) + recording.centre;
        else
            curvature.correct(places[i].data(), lattice.origin.data(), tilts[i], answer.refined.sense,
                              places[i].data());
    return places;
}

/// Indexes the whole level with the lattice of an answer that a part of it gave.
void indexLevel(Indexed& answer, double tolerance, const Recording& recording) {
    RefinedPositions& refined = answer.refined;
    refined.positions = placesBy(answer, answer.level, recording);
    const std::vector<FitPoint> points = fitPointsAt(refined.positions);
    refined.indices.assign(points.size(), {});
    indexPoints(points, answer.lattice(), tolerance, refined.indices);
    const auto onNodes = std::count_if(refined.indices.begin(), refined.indices.end(),
                                       [](const Indices& hkl) { return hkl[0] != kNotIndexed; });
    refined.lattice.reflections = static_cast<int>(points.size());
    refined.lattice.indexed = static_cast<int>(onNodes);
    answer.evidence.indexedShare = refined.lattice.fraction();
}

/// How many numbers the ties of the answer leave free: fewer are more symmetry.
Eigen::Index freeNumbers(const Indexed& answer) {
    Matrix34 model;
    model << answer.lattice().basis, answer.lattice().origin;
    const LatticeCharacter& type = answer.symmetry();
    return TiedLattice(CellTies::of(type.bravaisType, matrixOf(type)), model).size();
}

/// The first crystal with cell, type and instrument by its own reflections: those of the others, of which one
/// in eight is indexed by chance, hide ties that the lattice has. All reflections are indexed with it.
/// Nothing where its own are too few, or hide ties themselves: those between the parts of a split crystal are
/// in neither.
std::optional<Indexed> onOwnReflections(const Indexed& first, const std::vector<FurtherCrystal>& others,
                                        double tolerance, const Recording& recording, Session& session) {
    constexpr std::size_t kFewestOwn = 100;
    Level own = ownReflections(first, others);
    if (own.reflections.size() < kFewestOwn) return std::nullopt;
    LatticeChoice choice = latticeOf(first);
    choice.tolerance = tolerance;
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    std::optional<Indexed> answer = indexed(std::move(own), choice, recording, session);
    if (!answer || !areAlike(first.lattice().basis, answer->lattice().basis) ||
        freeNumbers(*answer) > freeNumbers(first))
        return std::nullopt;
    answer->level = first.level;
    answer->weaker = first.weaker;
    answer->cellThreshold = first.cellThreshold;
    indexLevel(*answer, tolerance, recording);
    answer->evidence.rivalEvidence = first.evidence.rivalEvidence;
    answer->evidence.rival = first.evidence.rival;
    return answer;
}

/// A further crystal with the type of the first one, of which it has the cell, where that leaves its
/// reflections as close to the nodes: fewer of them bear ties that the cell has not.
void takeTypeOf(const Indexed& first, Indexed& other, const Recording& recording, Session& session) {
    constexpr double kAsFar = 1.02;
    constexpr double kAsMany = 0.98;
    const LATTICE::BravaisTypes type = first.symmetry().bravaisType;
    if (other.symmetry().bravaisType == type) return;
    LatticeChoice choice = latticeOf(other);
    choice.sense = other.refined.sense;
    choice.type = type;
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    std::optional<Indexed> answer = indexed(other.level, choice, recording, session);
    if (!answer || answer->conventional.rms > kAsFar * other.conventional.rms ||
        answer->conventional.indexed < kAsMany * other.conventional.indexed)
        return;
    other = std::move(*answer);
}

/// The axis that one crystal confirms is that of all.
void confirmAxis(Indexed& first, std::vector<FurtherCrystal>& others) {
    std::vector<Indexed*> all = {&first};
    for (FurtherCrystal& other : others)
        all.push_back(&other.indexed);
    if (std::none_of(all.begin(), all.end(), [](const Indexed* one) { return one->axisConfirmed; })) return;
    for (Indexed* one : all) {
        one->axisConfirmed = true;
        one->evidence.axisAssumed = false;
        one->verdict = verdictOn(one->evidence);
    }
}

/// \param tolerance  of the indices of the first crystal
Crystals searchedFrom(Indexed& first, double tolerance, const LatticeCandidate* rival,
                      const Recording& recording, const CrystalSearch& how, Session& session) {
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
    if (!crystals.others.empty())
        if (std::optional<Indexed> own =
                onOwnReflections(first, crystals.others, tolerance, recording, session))
            first = std::move(*own);
    for (FurtherCrystal& other : crystals.others)
        if (other.sameCell) takeTypeOf(first, other.indexed, recording, session);
    confirmAxis(first, crystals.others);
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
    Crystals crystals = searchedFrom(first, kTolerance, rival, recording, how, session);
    if (!crystals.others.empty() || how.most < 2) return crystals;
    if (std::optional<Indexed> part = partOf(first, recording, session)) {
        Crystals parts =
            searchedFrom(*part, toleranceOfPart(part->lattice()), nullptr, recording, how, session);
        if (!parts.others.empty()) {
            first = std::move(*part);
            return parts;
        }
    }
    std::optional<Indexed> weaker = onWeakerReflections(first, recording, session);
    if (!weaker) return crystals;
    Crystals weak = searchedFrom(*weaker, kTolerance, rival, recording, how, session);
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
