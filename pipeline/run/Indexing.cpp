#include "pipeline/run/Indexing.h"

#include <algorithm>
#include <cmath>
#include <numbers>
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
/// Ties that let the spread of the reflections about the nodes grow by no more than this, and lose no more of
/// their indices, are those of the lattice.
constexpr double kSameSpread = 1.04;
constexpr double kSmallSpread = 0.01;  // voxels
constexpr double kSameIndexed = 0.98;
/// What ties may add to the mean distance: this share, which errors that reflections have in common may cost,
/// or where they are few what this loss of likelihood, in nats, comes to.
constexpr double kSameDistance = 1.01;
constexpr double kSameLikelihood = 10.0;

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

std::vector<Eigen::Vector3d> indexedPositions(const RefinedPositions& refined) {
    std::vector<Eigen::Vector3d> places;
    for (std::size_t i = 0; i < refined.positions.size(); ++i)
        if (refined.indices[i][0] != kNotIndexed) places.push_back(refined.positions[i]);
    return places;
}

RecordedSpace recordedSpace(const ReciprocalVolume& volume, const Level& level, int sense) {
    constexpr double kDegree = std::numbers::pi / 180.0;
    const SeriesFacts& facts = volume.facts;
    RecordedSpace space;
    space.tiltFirst = facts.tiltFirst * kDegree;
    space.tiltLast = facts.tiltLast * kDegree;
    space.halfWidth = 0.5 * volume.voxels->GetWidth();
    space.zeroBeam = level.zeroBeam;
    space.wavelength = facts.wavelength();
    space.sense = sense;
    return space;
}

Eigen::Matrix3d matrixOf(const LatticeCharacter& character) {
    Eigen::Matrix3d matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = character.toConventional[i][j];
    return matrix;
}

InstrumentSettings instrumentSettings(const ReciprocalVolume& volume, int sense, const CellTies& ties) {
    InstrumentSettings settings;
    settings.halfWidth = 0.5 * volume.voxels->GetWidth();
    settings.wavelength = volume.facts.wavelength();
    settings.sense = sense;
    settings.tolerance = kIndexTolerance;
    settings.ties = ties;
    return settings;
}

/// Whether the reflections determine the direction of the axis and find it where it was taken to be.
bool confirmsAxis(const RefinedInstrument& instrument) {
    constexpr double kMostTurn = 0.25 * std::numbers::pi / 180.0;
    return instrument.valid && std::abs(instrument.model[InstrumentTerm::AxisTurn]) < kMostTurn &&
           instrument.axisTurnSigma < 0.2 * kMostTurn;
}

/// Takes over positions that an instrument gives, with the free lattice on them.
void takeInstrument(Indexed& result) {
    std::vector<FitPoint> points;
    for (const Eigen::Vector3d& position : result.instrument.positions)
        points.push_back({position});
    const LatticeFit fit = fitLattice(points, result.instrument.lattice.lattice, kIndexTolerance, {});
    if (!fit.valid) return;
    result.refined.positions = result.instrument.positions;
    result.refined.indices = fit.indices;
    result.refined.lattice = describe(fit, {});
}

/// Whether reflections lie as close to the nodes with ties as without.
bool areAsClose(const RefinedLattice& tied, const RefinedLattice& free) {
    const double fewCost = std::exp(kSameLikelihood / (3.0 * std::max(free.indexed, 1)));
    return tied.sigma <= kSameSpread * free.sigma + kSmallSpread &&
           tied.rms <= std::hypot(std::max(kSameDistance, fewCost) * free.rms, kSmallSpread) &&
           tied.indexed >= kSameIndexed * free.indexed;
}

/// The answer to the front where no ties were accepted: the triclinic one when the reflections refuse all
/// others, the most exact when they were too few to be asked.
void preferExactFit(std::vector<LatticeCharacter>& characters, const RefinedLattice& lattice, bool refused) {
    const std::array<double, 6>& sigma = lattice.cellSigma;
    LatticeSymmetry::preferExactFit(characters, *std::max_element(sigma.begin() + 3, sigma.end()));
    if (!refused) return;
    std::stable_partition(characters.begin(), characters.end(), [](const LatticeCharacter& character) {
        return character.bravaisType == LATTICE::aP;
    });
}

/// The symmetry of the lattice, with the instrument's distortion taken into account: of the types that the
/// cell nearly has, the highest whose ties leave the reflections as close to the nodes as no ties at all do.
void analyseSymmetry(Indexed& result, const ReciprocalVolume& volume, const Lattice& start) {
    const std::vector<Eigen::Vector3d> positions = result.level.positions();
    const std::vector<double> tilts = result.level.tilts();
    Lattice from = result.lattice();
    const auto instrument = [&](const CellTies& ties) {
        return refineInstrument(positions, tilts, from, volume.centre(),
                                instrumentSettings(volume, result.refined.sense, ties));
    };
    result.instrument = instrument({});
    if (result.instrument.valid) from.basis = result.instrument.lattice.lattice.basis;
    result.characters = LatticeSymmetry::analyse(from.toUnitCell(), kSymmetryTolerances);
    if (result.characters.empty())
        throw Failure("the refined cell spans no lattice; " + whatToTry(), FailureKind::NothingFound);
    const RefinedInstrument free = result.instrument;
    for (std::size_t i = 0; free.valid && i < result.characters.size(); ++i) {
        const CellTies ties = CellTies::of(result.characters[i].bravaisType, matrixOf(result.characters[i]));
        if (!ties.any) continue;
        RefinedInstrument tied = instrument(ties);
        if (!tied.valid || !areAsClose(tied.lattice, free.lattice)) continue;
        std::rotate(result.characters.begin(), result.characters.begin() + static_cast<std::ptrdiff_t>(i),
                    result.characters.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        result.instrument = std::move(tied);
        takeInstrument(result);
        result.conventional = result.instrument.lattice;
        return;
    }
    preferExactFit(result.characters, result.refined.lattice, free.valid);
    const CellTies ties = CellTies::of(result.symmetry().bravaisType, result.toConventional());
    from.origin = start.origin;
    const std::optional<RefinedPositions> tied = refine(result.level, from, volume.facts, ties);
    if (result.instrument.valid) takeInstrument(result);
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
                         const ReciprocalVolume& volume, const TiltAxis& axis, Session& session) {
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
    analyseSymmetry(result, volume, start);
    result.resolution = finestSpacing(result.refined);
    result.completeness = completenessOf(result.lattice(), result.refined.indices,
                                         recordedSpace(volume, result.level, result.refined.sense));
    LatticeEvidence evidence;
    evidence.score = choice.best.score;
    if (choice.runnerUp) evidence.rivalEvidence = choice.runnerUp->score.evidence;
    evidence.indexedShare = result.refined.lattice.fraction();
    evidence.completeness = result.completeness;
    evidence.thinness = thinnessOf(indexedPositions(result.refined), result.lattice().origin);
    // The instrument's refinement confirms or moves an axis that nobody stated; without it it stays a guess.
    result.axisConfirmed = confirmsAxis(result.instrument);
    evidence.axisAssumed = axis.source == "assumed" && !result.axisConfirmed;
    result.verdict = verdictOn(evidence);
    return result;
}

}  // namespace vrk
