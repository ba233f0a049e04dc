#include "pipeline/run/LatticeChoice.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <utility>

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
    std::size_t done = 0;
    CellSearchOptions settings = searchOptions(options, session);
    settings.progressed = [&](double share) {
        session.advance((static_cast<double>(done) + share) / static_cast<double>(levels.size()));
    };
    const CellSearch search(std::move(settings));
    // Parameter sets that find no cluster are part of the search, not news.
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    LatticeChoice choice;
    Points bestPoints;
    std::vector<double> bestWeights;
    double merit = 0.0;
    for (std::size_t i = levels.size(); i-- > 0; ++done) {
        std::vector<double> weights;
        const Points points = flatPoints(levels[i], volume, &weights);
        std::vector<LatticeCandidate> candidates = search.search(points, weights);
        if (candidates.empty()) continue;
        const LatticeScore& score = candidates.front().score;
        if (score.evidence * score.fraction() <= merit) continue;
        merit = score.evidence * score.fraction();
        choice.level = i;
        choice.runnerUp.reset();
        if (candidates.size() > 1) choice.runnerUp = candidates[1];
        choice.best = std::move(candidates.front());
        bestPoints = points;
        bestWeights = std::move(weights);
    }
    if (!isConvincing(choice.best.score)) throw noLattice(levels, choice.best.score);
    Lattice lattice = choice.best.lattice;
    lattice.pixelSize = volume.facts.pixelSize;
    const std::unique_ptr<UnitCell> direct(niggliReduced(lattice).toUnitCell().getReciprocalCell());
    refuseImpossibleScale({direct->getLengthOfA(), direct->getLengthOfB(), direct->getLengthOfC()},
                          lattice.pixelSize);
    choice.evidence = search.stepsOf(choice.best, bestPoints, bestWeights)
                          ->evaluate(lattice, choice.best.score, bestPoints);
    return choice;
}

}  // namespace vrk
