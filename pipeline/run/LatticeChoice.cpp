#include "pipeline/run/LatticeChoice.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <sstream>
#include <utility>

#include "foundation/SharedLoop.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/latticesearch/Confidence.h"
#include "pipeline/run/Advice.h"

namespace vrk {
namespace {

/// Reflections whose curvature is below this many voxels, or this share of the distance between neighbours,
/// find the lattice; the others follow when it is corrected.
constexpr double kFlatEnough = 1.5;
constexpr double kFlatShare = 0.05;

template <typename Value>
void list(std::ostream& text, const std::vector<Level>& levels, Value value) {
    for (const Level& level : levels)
        text << value(level) << (&level == &levels.back() ? "" : ", ");
}

Failure noLattice(const std::vector<Level>& levels, const LatticeScore& score) {
    std::ostringstream text;
    text << "no lattice was found among ";
    list(text, levels, [](const Level& level) { return level.reflections.size(); });
    text << " reflections (thresholds ";
    list(text, levels, [](const Level& level) { return level.threshold; });
    text << ")";
    if (score.evidence > 0.0)
        text << "; the best cell explains " << score.indexed << " of " << score.points
             << ", hardly more than chance";
    text << "; " << whatToTry();
    return Failure(text.str(), FailureKind::NothingFound);
}

/// Refuses a pixel size with which even neighbours lie as no lattice has them: all reflections are taken for
/// curved then, and none is left to be searched.
void refuseAbsurdScale(const Level& level, const ReciprocalVolume& volume) {
    constexpr double kShortest = 0.01, kLongest = 2e5;  // Angstrom
    const std::vector<Eigen::Vector3d> places = level.positions();
    const double distance = neighbourDistance(Points(places.begin(), places.end()), 4);
    const double edge = 1e10 / (distance * volume.facts.pixelSize);
    if (edge > 0.0 && (edge < kShortest || (std::isfinite(edge) && edge > kLongest)))
        refuseImpossibleScale({edge, edge, edge}, volume.facts.pixelSize);
}

/// What the reflections of a level are searched in.
struct LevelPoints {
    Points points;
    std::vector<double> weights;
};

/// The candidates that the levels give, each level for itself.
std::vector<std::vector<LatticeCandidate>> searchAll(const std::vector<LevelPoints>& levels,
                                                     const CellOptions& options, Session& session) {
    std::vector<std::vector<LatticeCandidate>> found(levels.size());
    CellSearchOptions settings = searchOptions(options, session);
    std::size_t done = 0;
    std::atomic<bool> stops = false;
    if (VRK::lanes() > 1 && levels.size() > 1)
        settings.canceled = [&stops] { return stops.load(); };
    else
        settings.progressed = [&](double share) {
            session.advance((static_cast<double>(done) + share) / static_cast<double>(levels.size()));
        };
    const CellSearch search(std::move(settings));
    // The lowest threshold, which gives most reflections, takes longest.
    VRK::shareItems(
        levels.size(),
        [&](std::size_t i, std::size_t) { found[i] = search.search(levels[i].points, levels[i].weights); },
        [&](std::size_t count) {
            done = count;
            session.advance(static_cast<double>(done) / static_cast<double>(levels.size()));
            stops = session.canceled();
            return true;
        });
    session.checkCanceled();
    return found;
}

}  // namespace

Points flatPoints(const Level& level, const ReciprocalVolume& volume, std::vector<double>* weights) {
    const Eigen::Vector3d origin = volume.centre();
    const EwaldCurvature curvature(volume.facts.wavelength(), volume.facts.pixelSize);
    Points all;
    for (const FoundReflection& reflection : level.reflections)
        all.push_back(reflection.position - origin);
    const double most = std::max(kFlatEnough, kFlatShare * neighbourDistance(all, 4));
    Points flat;
    if (weights) weights->clear();
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (curvature.step(all[i].data()) > most) continue;
        flat.push_back(all[i]);
        if (weights) weights->push_back(level.reflections[i].intensity);
    }
    return flat;
}

LatticeChoice findLattice(const std::vector<Level>& levels, const ReciprocalVolume& volume,
                          const CellOptions& options, Session& session) {
    const Stage stage(session, "cell");
    // Parameter sets that find no cluster are part of the search, not news.
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    LatticeChoice choice;
    std::vector<LevelPoints> points(levels.size());
    for (std::size_t i = 0; i < levels.size(); ++i)
        points[i].points = flatPoints(levels[i], volume, &points[i].weights);
    std::vector<std::vector<LatticeCandidate>> found = searchAll(points, options, session);
    double merit = 0.0;
    for (std::size_t i = levels.size(); i-- > 0;) {
        std::vector<LatticeCandidate>& candidates = found[i];
        if (candidates.empty()) continue;
        const LatticeScore& score = candidates.front().score;
        if (score.evidence * score.fraction() <= merit) continue;
        merit = score.evidence * score.fraction();
        choice.level = i;
        choice.runnerUp.reset();
        if (candidates.size() > 1) choice.runnerUp = candidates[1];
        choice.best = std::move(candidates.front());
    }
    if (!isConvincing(choice.best.score)) {
        refuseAbsurdScale(levels.front(), volume);
        throw noLattice(levels, choice.best.score);
    }
    Lattice lattice = choice.best.lattice;
    lattice.pixelSize = volume.facts.pixelSize;
    const std::unique_ptr<UnitCell> direct(niggliReduced(lattice).toUnitCell().getReciprocalCell());
    refuseImpossibleScale({direct->getLengthOfA(), direct->getLengthOfB(), direct->getLengthOfC()},
                          lattice.pixelSize);
    const LevelPoints& best = points[choice.level];
    choice.evidence = CellSearch(searchOptions(options, session))
                          .stepsOf(choice.best, best.points, best.weights)
                          ->evaluate(lattice, choice.best.score, best.points);
    return choice;
}

}  // namespace vrk
