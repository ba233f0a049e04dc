#include "pipeline/run/Indexing.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/run/Advice.h"

namespace vrk {
namespace {

/// Tolerance of the fractional indices.
constexpr double kIndexTolerance = 0.25;
/// What lens distortion does to the angles and edges of a cell.
constexpr LatticeTolerances kSymmetryTolerances{2.5, 0.03};
/// A list of which this share lies on the lattice is clean.
constexpr double kWellIndexed = 0.95;
/// A higher level must have this many reflections to be taken for its cleanness.
constexpr std::size_t kEnoughReflections = 150;

std::optional<RefinedPositions> refine(const Level& level, const Lattice& start, const SeriesFacts& facts,
                                       const CellTies& ties = {}) {
    RefinementSettings settings;
    settings.wavelength = facts.wavelength();
    settings.tolerance = kIndexTolerance;
    settings.ties = ties;
    const std::vector<Eigen::Vector3d> positions = level.positions();
    return refinePositions(positions, level.tilts(), start, settings);
}

double finestSpacing(const RefinedPositions& refined) {
    const Lattice& lattice = refined.lattice.lattice;
    double longest = 0.0;
    for (std::size_t i = 0; i < refined.positions.size(); ++i)
        if (refined.indices[i][0] != kNotIndexed)
            longest = std::max(longest, (refined.positions[i] - lattice.origin).norm());
    return longest > 0.0 ? 1e10 / (longest * lattice.pixelSize) : 0.0;
}

Eigen::Matrix3d matrixOf(const LatticeCharacter& character) {
    Eigen::Matrix3d matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = character.toConventional[i][j];
    return matrix;
}

void analyseSymmetry(Indexed& result, const SeriesFacts& facts, const Lattice& start) {
    const UnitCell cell = result.lattice().toUnitCell();
    result.characters = LatticeSymmetry::analyse(cell, kSymmetryTolerances);
    if (result.characters.empty())
        throw Failure("the refined cell spans no lattice; " + whatToTry(), FailureKind::NothingFound);
    const std::array<double, 6>& sigma = result.refined.lattice.cellSigma;
    LatticeSymmetry::preferExactFit(result.characters, *std::max_element(sigma.begin() + 3, sigma.end()));
    const CellTies ties = CellTies::of(result.symmetry().bravaisType, result.toConventional());
    Lattice from = result.lattice();
    from.origin = start.origin;
    const std::optional<RefinedPositions> tied = refine(result.level, from, facts, ties);
    result.conventional = tied ? tied->lattice : result.refined.lattice;
}

}  // namespace

Eigen::Matrix3d Indexed::toConventional() const {
    return matrixOf(symmetry());
}

UnitCell Indexed::conventionalCell() const {
    return LatticeSymmetry::conventionalCell(lattice().toUnitCell(), symmetry());
}

std::size_t chooseLevel(std::size_t found, std::size_t levels,
                        const std::function<std::optional<LevelShare>(std::size_t)>& share) {
    std::optional<LevelShare> chosen = share(found);
    if (!chosen) return found;
    std::size_t answer = found;
    for (std::size_t i = found; i-- > 0;) {
        const std::optional<LevelShare> lower = share(i);
        if (!lower) break;
        const double come =
            static_cast<double>(lower->reflections) - static_cast<double>(chosen->reflections);
        const double indexed = lower->indexed - chosen->indexed;
        const bool wholeOnLattice = lower->fraction() >= kWellIndexed;
        const bool wasBetter = chosen->fraction() >= kWellIndexed;
        if (!wholeOnLattice && (wasBetter || indexed < 0.8 * come)) break;
        chosen = lower;
        answer = i;
    }
    for (std::size_t i = found + 1; answer + 1 == i && i < levels; ++i) {
        if (chosen->fraction() >= 0.9) break;
        const std::optional<LevelShare> higher = share(i);
        const bool better = higher && higher->fraction() > chosen->fraction() + 0.02 &&
                            higher->reflections > kEnoughReflections;
        if (!better) break;
        chosen = higher;
        answer = i;
    }
    return answer;
}

Indexed indexReflections(std::vector<Level> levels, const LatticeChoice& choice,
                         const ReciprocalVolume& volume, Session& session) {
    const SeriesFacts& facts = volume.facts;
    Lattice start = choice.best.lattice;
    start.origin = volume.centre();
    start.pixelSize = facts.pixelSize;
    start = niggliReduced(start);
    const std::optional<RefinedPositions> first = refine(levels[choice.level], start, facts);
    if (!first)
        throw Failure("a lattice was found, but its cell could not be refined; " + whatToTry(),
                      FailureKind::NothingFound);
    start.basis = niggliReduced(first->lattice.lattice).basis;

    const auto share = [&](std::size_t i) -> std::optional<LevelShare> {
        session.checkCanceled();
        const std::optional<RefinedPositions> trial = refine(levels[i], start, facts);
        if (!trial) return std::nullopt;
        return LevelShare{levels[i].reflections.size(), trial->lattice.indexed};
    };
    const std::size_t chosen = chooseLevel(choice.level, levels.size(), share);

    Indexed result;
    result.cellThreshold = levels[choice.level].threshold;
    result.level = std::move(levels[chosen]);
    std::optional<RefinedPositions> refined = refine(result.level, start, facts);
    if (!refined)
        throw Failure("the reflections could not be indexed; " + whatToTry(), FailureKind::NothingFound);
    result.refined = std::move(*refined);
    result.resolution = finestSpacing(result.refined);
    result.confidence =
        confidenceOf({choice.best.score, choice.runnerUp ? choice.runnerUp->score.evidence : 0.0,
                      result.refined.lattice.fraction()});
    analyseSymmetry(result, facts, start);
    return result;
}

}  // namespace vrk
