#include "pipeline/run/Indexing.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/run/Advice.h"
#include "pipeline/run/SymmetryChoice.h"

namespace vrk {
namespace {

/// A list of which this share lies on the lattice is clean.
constexpr double kWellIndexed = 0.95;
/// A higher level must have this many reflections to be taken for its cleanness.
constexpr std::size_t kEnoughReflections = 150;

std::optional<RefinedPositions> refine(const Level& level, const Lattice& start, const Recording& recording,
                                       const LatticeChoice& choice) {
    RefinementSettings settings;
    settings.sense = choice.sense;
    settings.wavelength = recording.space.wavelength;
    settings.tolerance = choice.tolerance;
    const std::vector<Eigen::Vector3d> positions = level.positions();
    return refinePositions(positions, level.tilts(), start, settings);
}

std::vector<Eigen::Vector3d> indexedPositions(const RefinedPositions& refined) {
    std::vector<Eigen::Vector3d> places;
    for (std::size_t i = 0; i < refined.positions.size(); ++i)
        if (refined.indices[i][0] != kNotIndexed) places.push_back(refined.positions[i]);
    return places;
}

RecordedSpace recordedSpace(const Recording& recording, const Level& level, int sense) {
    RecordedSpace space = recording.space;
    space.zeroBeam = level.zeroBeam;
    space.sense = sense;
    return space;
}

/// Whether the reflections determine the direction of the axis and find it where it was taken to be.
bool confirmsAxis(const RefinedInstrument& instrument) {
    constexpr double kMostTurn = 0.25 * std::numbers::pi / 180.0;
    return instrument.valid && std::abs(instrument.model[InstrumentTerm::AxisTurn]) < kMostTurn &&
           instrument.axisTurnSigma < 0.2 * kMostTurn;
}

/// Goes on with what the reflections say under the ties of their lattice type.
void takeSymmetry(Indexed& result, const Recording& recording, const LatticeChoice& lattice) {
    const std::vector<Eigen::Vector3d> positions = result.level.positions();
    const std::vector<double> tilts = result.level.tilts();
    SymmetryInput input;
    input.positions = positions;
    input.tilts = tilts;
    input.centre = recording.centre;
    input.halfWidth = recording.space.halfWidth;
    input.wavelength = recording.space.wavelength;
    input.tolerance = lattice.tolerance;
    input.wanted = lattice.type;
    input.known = recording.known;
    SymmetryChoice choice = chooseSymmetry(input, std::move(result.refined));
    result.strain = strainText(choice.conventional, choice.untied, choice.characters.front().bravaisType);
    result.contradiction = contradictionText(input, choice);
    result.unprovenEllipse = unprovenEllipse(input, choice);
    result.doubted = choice.doubted;
    result.refined = std::move(choice.refined);
    result.conventional = choice.conventional;
    result.instrument = std::move(choice.instrument);
    result.characters = std::move(choice.characters);
}

/// Looks whether the sphere is as curved as the pixel size and the wavelength say.
void takeCurvature(Indexed& result, const Recording& recording, const LatticeChoice& lattice) {
    const double curvature =
        0.5e-10 * result.refined.sense * recording.space.wavelength * recording.pixelSize;
    result.curvature = CurvatureScale::of(result.refined.positions, result.level.tilts(), result.lattice(),
                                          curvature, lattice.tolerance);
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

double finestSpacing(std::span<const Eigen::Vector3d> places, const Lattice& lattice) {
    double longest = 0.0;
    for (const Eigen::Vector3d& place : places)
        longest = std::max(longest, (place - lattice.origin).norm());
    return longest > 0.0 ? 1e10 / (longest * lattice.pixelSize) : 0.0;
}

Recording recordingOf(const ReciprocalVolume& volume, const TiltAxis& axis) {
    const SeriesFacts& facts = volume.facts;
    Recording recording;
    recording.space.tiltFirst = facts.tiltFirst * kDegree;
    recording.space.tiltLast = facts.tiltLast * kDegree;
    recording.space.halfWidth = 0.5 * volume.voxels->GetWidth();
    recording.space.wavelength = facts.wavelength();
    recording.centre = volume.centre();
    recording.pixelSize = facts.pixelSize;
    recording.known = knownTerms(facts);
    recording.ellipseKnown = facts.instrument && facts.instrument->ellipse;
    recording.axisAssumed = axis.source == "assumed";
    return recording;
}

Indexed indexReflections(std::vector<Level> levels, const LatticeChoice& choice,
                         const ReciprocalVolume& volume, const TiltAxis& axis, Session& session) {
    return indexRecorded(std::move(levels), choice, recordingOf(volume, axis), session);
}

Indexed indexRecorded(std::vector<Level> levels, const LatticeChoice& choice, const Recording& recording,
                      Session& session) {
    Lattice start = choice.best.lattice;
    start.origin = recording.centre;
    start.pixelSize = recording.pixelSize;
    start = niggliReduced(start);
    const std::optional<RefinedPositions> first = refine(levels[choice.level], start, recording, choice);
    if (!first)
        throw Failure("a lattice was found, but its cell could not be refined; " + whatToTry(),
                      FailureKind::NothingFound);
    start.basis = niggliReduced(first->lattice.lattice).basis;

    std::vector<std::optional<RefinedPositions>> trials(levels.size());
    const auto share = [&](std::size_t i) -> std::optional<LevelShare> {
        session.checkCanceled();
        trials[i] = refine(levels[i], start, recording, choice);
        if (!trials[i]) return std::nullopt;
        return LevelShare{levels[i].reflections.size(), trials[i]->lattice.indexed};
    };
    const std::size_t chosen = chooseLevel(choice.level, levels.size(), share);

    Indexed result;
    result.cellThreshold = levels[choice.level].threshold;
    if (chosen > choice.level) result.weaker = std::move(levels[choice.level]);
    result.level = std::move(levels[chosen]);
    if (!trials[chosen])
        throw Failure("the reflections could not be indexed; " + whatToTry(), FailureKind::NothingFound);
    result.refined = std::move(*trials[chosen]);
    takeSymmetry(result, recording, choice);
    takeCurvature(result, recording, choice);
    const std::vector<Eigen::Vector3d> places = indexedPositions(result.refined);
    result.resolution = finestSpacing(places, result.lattice());
    result.completeness = completenessOf(result.lattice(), result.refined.indices,
                                         recordedSpace(recording, result.level, result.refined.sense));
    LatticeEvidence evidence;
    evidence.score = choice.best.score;
    if (choice.runnerUp) {
        evidence.rivalEvidence = choice.runnerUp->score.evidence;
        evidence.rival = cellText(choice.runnerUp->lattice, recording.pixelSize);
    }
    evidence.indexedShare = result.refined.lattice.fraction();
    evidence.completeness = result.completeness;
    if (recording.pixelSize > 0.0) evidence.finestSpacing = result.resolution;
    const RefinedLattice& free = result.refined.lattice;
    for (std::size_t i = 0; i < 3; ++i)
        evidence.edgeUncertainty =
            std::max(evidence.edgeUncertainty.value_or(0.0), free.cellSigma[i] / free.cell[i]);
    evidence.residual = result.refined.lattice.rms;
    evidence.relativeResidual = result.refined.lattice.rms / result.lattice().shortestEdge();
    if (result.instrument.valid) {
        evidence.ellipse = result.instrument.ellipse();
        evidence.tiltScale = result.instrument.model[InstrumentTerm::TiltScale];
        const RefinedLattice& tied = result.instrument.lattice;
        for (std::size_t i = 0; i < 3; ++i)
            evidence.tiedUncertainty = std::max(evidence.tiedUncertainty, tied.cellSigma[i] / tied.cell[i]);
    }
    evidence.thinness = thinnessOf(places, result.lattice().origin);
    // The instrument's refinement confirms or moves an axis that nobody stated; without it it stays a guess.
    result.axisConfirmed = confirmsAxis(result.instrument);
    evidence.axisAssumed = recording.axisAssumed && !result.axisConfirmed;
    evidence.ellipseUnknown = result.symmetry().bravaisType == LATTICE::aP && !recording.ellipseKnown;
    evidence.ellipseUnproven = result.unprovenEllipse;
    if (result.doubted) evidence.higherType = LATTICE::shortName(*result.doubted);
    evidence.tiesStrain = !result.strain.empty();
    evidence.spaceEstimated = recording.estimated;
    if (result.curvature.contradicts()) evidence.pixelFactor = result.curvature.factor;
    evidence.instrumentContradicted = !result.contradiction.empty();
    result.evidence = std::move(evidence);
    result.verdict = verdictOn(result.evidence);
    return result;
}

}  // namespace vrk
