#include "pipeline/run/SymmetryChoice.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/latticesearch/Confidence.h"
#include "pipeline/latticesearch/EquivalentAxes.h"
#include "pipeline/run/Advice.h"

namespace vrk {
namespace {

/// What lens distortion does to the angles and edges of a cell.
constexpr LatticeTolerances kSymmetryTolerances{2.5, 0.03};
/// Ties that let the spread of the reflections about the nodes grow by no more than this, and lose no more of
/// their indices, are those of the lattice.
constexpr double kSameSpread = 1.04;
constexpr double kSmallSpread = 0.01;  // voxels
constexpr double kSameIndexed = 0.98;
/// What ties may add to the mean distance: this share, which errors that reflections have in common may cost,
/// or where they are few what this loss of likelihood, in nats, comes to.
constexpr double kSameDistance = 1.01;
constexpr double kSameLikelihood = 10.0;
/// Reflections that scatter more than this have larger errors in common, by which fits with and without ties
/// differ as much in either direction: they may be farther by the second share.
constexpr double kScattered = 0.9;  // voxels
constexpr double kSameDistanceOfScattered = 1.02;
/// Ties that were refused, but would pass with these shares so many times as large, leave the type in doubt.
constexpr double kInDoubt = 2.5;

CellTies tiesOf(const LatticeCharacter& character) {
    return CellTies::of(character.bravaisType, matrixOf(character));
}

/// The conventional cell of a character with nothing tied.
CellTies untied(const LatticeCharacter& character) {
    CellTies ties;
    ties.toConventional = matrixOf(character);
    return ties;
}

RefinedInstrument refinedInstrument(const SymmetryInput& input, const Lattice& from, int sense,
                                    const CellTies& ties) {
    InstrumentSettings settings;
    settings.halfWidth = input.halfWidth;
    settings.wavelength = input.wavelength;
    settings.sense = sense;
    settings.tolerance = input.tolerance;
    settings.ties = ties;
    settings.known = input.known;
    return refineInstrument(input.positions, input.tilts, from, input.centre, settings);
}

std::optional<RefinedPositions> refined(const SymmetryInput& input, const Lattice& from,
                                        const CellTies& ties) {
    RefinementSettings settings;
    settings.wavelength = input.wavelength;
    settings.tolerance = input.tolerance;
    settings.ties = ties;
    return refinePositions(input.positions, input.tilts, from, settings);
}

/// Takes over the positions that the instrument gives, with the free lattice on them.
void takeInstrument(SymmetryChoice& choice, double tolerance) {
    const std::vector<FitPoint> points = fitPointsAt(choice.instrument.positions);
    const LatticeFit fit = fitLattice(points, choice.instrument.lattice.lattice, tolerance, {});
    if (!fit.valid) return;
    choice.refined.positions = choice.instrument.positions;
    choice.refined.indices = fit.indices;
    choice.refined.lattice = describe(fit, {});
    choice.untied = describe(fit, untied(choice.characters.front()));
}

/// Whether reflections lie as close to the nodes with ties as without. \param slack  factor on what ties may
/// cost
bool areAsClose(const RefinedLattice& tied, const RefinedLattice& free, double slack = 1.0) {
    const auto slackened = [&](double share) { return 1.0 + slack * (share - 1.0); };
    const double fewCost = std::exp(kSameLikelihood / (3.0 * std::max(free.indexed, 1)));
    const double commonCost = free.rms > kScattered ? kSameDistanceOfScattered : kSameDistance;
    return tied.sigma <= slackened(kSameSpread) * free.sigma + kSmallSpread &&
           tied.rms <= std::hypot(slackened(std::max(commonCost, fewCost)) * free.rms, kSmallSpread) &&
           tied.indexed >= slackened(kSameIndexed) * free.indexed;
}

bool isPossible(const RefinedInstrument& instrument) {
    return instrument.valid && instrument.ellipse() <= kMostEllipse;
}

/// The metric of a lattice with the ties of a character: the same for axes that only bear other names.
Eigen::Matrix3d tiedMetric(const LatticeCharacter& character, const Lattice& lattice) {
    Matrix34 model;
    model << lattice.basis, lattice.origin;
    const Eigen::Matrix3d tied = TiedLattice(tiesOf(character), model).model().leftCols<3>();
    return tied.transpose() * tied;
}

/// Of the axes that a character may have where the lattice nearly has a higher type, those that leave the
/// reflections closest to the nodes.
RefinedInstrument underTiesOf(LatticeCharacter& character, const LatticeCharacter& higher,
                              const SymmetryInput& input, const Lattice& from, int sense) {
    constexpr std::size_t kMost = 6;
    RefinedInstrument best = refinedInstrument(input, from, sense, tiesOf(character));
    std::vector<Eigen::Matrix3d> metrics = {tiedMetric(character, from)};
    for (LatticeCharacter& other : otherAxes(character, higher, from.toUnitCell())) {
        const Eigen::Matrix3d metric = tiedMetric(other, from);
        const bool isNew = std::none_of(metrics.begin(), metrics.end(), [&](const Eigen::Matrix3d& one) {
            return (one - metric).norm() < 1e-6 * metric.norm();
        });
        if (!isNew || metrics.size() == kMost) continue;
        metrics.push_back(metric);
        RefinedInstrument trial = refinedInstrument(input, from, sense, tiesOf(other));
        if (!isPossible(trial)) continue;
        const bool better =
            !isPossible(best) || (trial.lattice.rms < best.lattice.rms &&
                                  trial.lattice.indexed >= kSameIndexed * best.lattice.indexed);
        if (!better) continue;
        best = std::move(trial);
        character = other;
    }
    return best;
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

void bringToFront(std::vector<LatticeCharacter>& characters, std::size_t i) {
    const auto first = characters.begin();
    std::rotate(first, first + static_cast<std::ptrdiff_t>(i), first + static_cast<std::ptrdiff_t>(i) + 1);
}

/// What the cell nearly has, the highest symmetry first.
std::vector<LatticeCharacter> charactersOf(const UnitCell& cell) {
    std::vector<LatticeCharacter> characters = LatticeSymmetry::analyse(cell, kSymmetryTolerances);
    if (characters.empty())
        throw Failure("the cell spans no lattice; " + whatToTry(), FailureKind::NothingFound);
    for (LatticeCharacter& character : characters)
        settleAxes(character, cell);
    return characters;
}

/// Whether a type binds a cell by more than the two numbers of an ellipse.
bool bindsMoreThanAnEllipse(LATTICE::BravaisTypes type) {
    return type != LATTICE::aP && type != LATTICE::mP && type != LATTICE::mC;
}

/// The terms that differ from what is known, as text.
std::string differences(const RefinedInstrument& instrument, const KnownTerms& known) {
    using enum InstrumentTerm;
    constexpr double kSignificant = 5.0;
    constexpr double kLeastEllipse = 0.001, kLeastRadial = 0.003, kLeastScale = 0.003;
    constexpr double kLeastTilt = 0.2 * kDegree;
    const auto off = [&](InstrumentTerm term) {
        const std::optional<double>& value = known[static_cast<std::size_t>(term)];
        return value && instrument.uses(term) ? instrument.model[term] - *value : 0.0;
    };
    const auto sigma = [&](InstrumentTerm term) { return instrument.sigma[static_cast<std::size_t>(term)]; };
    std::string text;
    const auto add = [&](const char* format, double value, double least, double deviation, double unit) {
        if (std::abs(value) < std::max(least, kSignificant * deviation)) return;
        text += (text.empty() ? "" : ", ") + formatted(format, value / unit);
    };
    add("another ellipse by %.2f %%", std::hypot(off(EllipseCosine), off(EllipseSine)), kLeastEllipse,
        std::hypot(sigma(EllipseCosine), sigma(EllipseSine)), 0.01);
    add("a radial term by %+.2f %% different", off(Radial), kLeastRadial, sigma(Radial), 0.01);
    add("tilts by %+.2f %% larger", off(TiltScale), kLeastScale, sigma(TiltScale), 0.01);
    add("an axis by %+.2f degrees farther out of the frame", off(AxisTilt), kLeastTilt, sigma(AxisTilt),
        kDegree);
    return text;
}

/// Throws Failure when the type is not among them.
void bringToFront(std::vector<LatticeCharacter>& characters, LATTICE::BravaisTypes wanted) {
    const auto chosen = std::find_if(characters.begin(), characters.end(),
                                     [&](const LatticeCharacter& one) { return one.bravaisType == wanted; });
    if (chosen != characters.end()) {
        bringToFront(characters, static_cast<std::size_t>(chosen - characters.begin()));
        return;
    }
    std::string names;
    for (const LatticeCharacter& one : characters) {
        const std::string name = LATTICE::shortName(one.bravaisType);
        if (names.find(name) == std::string::npos) names += " " + name;
    }
    throw Failure(std::string("the cell is not ") + LATTICE::shortName(wanted) +
                      " within 2.5 degrees and 3 %; it fits" + names,
                  FailureKind::Usage);
}

}  // namespace

Eigen::Matrix3d matrixOf(const LatticeCharacter& character) {
    Eigen::Matrix3d matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(i, j) = character.toConventional[i][j];
    return matrix;
}

std::vector<LatticeCharacter> likelyCharacters(const UnitCell& cell,
                                               const std::optional<LATTICE::BravaisTypes>& wanted) {
    std::vector<LatticeCharacter> characters = charactersOf(cell);
    LatticeSymmetry::preferExactFit(characters);
    if (wanted) bringToFront(characters, *wanted);
    return characters;
}

SymmetryChoice chooseSymmetry(const SymmetryInput& input, RefinedPositions free) {
    SymmetryChoice result;
    result.refined = std::move(free);
    const int sense = result.refined.sense;
    Lattice from = result.refined.lattice.lattice;
    result.instrument = refinedInstrument(input, from, sense, {});
    if (result.instrument.valid) from.basis = result.instrument.lattice.lattice.basis;
    result.characters = charactersOf(from.toUnitCell());
    if (input.wanted) bringToFront(result.characters, *input.wanted);

    const RefinedInstrument untiedInstrument = result.instrument;
    const std::size_t candidates = input.wanted ? 1 : result.characters.size();
    for (std::size_t i = 0; untiedInstrument.valid && i < candidates; ++i) {
        LatticeCharacter character = result.characters[i];
        if (!tiesOf(character).any) continue;
        RefinedInstrument tied = underTiesOf(character, result.characters.front(), input, from, sense);
        if (!(input.wanted ? tied.valid : isPossible(tied))) continue;
        if (!areAsClose(tied.lattice, untiedInstrument.lattice)) {
            result.refusedHigher = true;
            if (!result.doubted && areAsClose(tied.lattice, untiedInstrument.lattice, kInDoubt))
                result.doubted = character.bravaisType;
            continue;
        }
        result.characters[i] = character;
        bringToFront(result.characters, i);
        result.instrument = std::move(tied);
        takeInstrument(result, input.tolerance);
        result.conventional = result.instrument.lattice;
        return result;
    }
    if (!input.wanted) preferExactFit(result.characters, result.refined.lattice, untiedInstrument.valid);
    from.origin = input.centre;
    const LatticeCharacter& answer = result.characters.front();
    const std::optional<RefinedPositions> tied = refined(input, from, tiesOf(answer));
    const std::optional<RefinedPositions> loose = refined(input, from, untied(answer));
    result.untied = loose ? loose->lattice : result.refined.lattice;
    if (result.instrument.valid) takeInstrument(result, input.tolerance);
    result.conventional = tied ? tied->lattice : result.refined.lattice;
    if (!result.instrument.valid) return result;
    // Under the ties of the answer, on the positions that the instrument gives.
    const std::vector<FitPoint> points = fitPointsAt(result.instrument.positions);
    const CellTies ties = tiesOf(answer);
    const LatticeFit fit = fitLattice(points, result.refined.lattice.lattice, input.tolerance, ties);
    if (fit.valid) result.conventional = describe(fit, ties);
    return result;
}

std::string contradictionText(const SymmetryInput& input, const SymmetryChoice& choice) {
    if (std::none_of(input.known.begin(), input.known.end(),
                     [](const auto& term) { return term.has_value(); }))
        return "";
    SymmetryInput open = input;
    open.known = {};
    const int sense = choice.refined.sense;
    const Lattice& from = choice.refined.lattice.lattice;
    const RefinedInstrument free = refinedInstrument(open, from, sense, {});
    if (!free.valid) return "";
    const bool isBound = bindsMoreThanAnEllipse(choice.characters.front().bravaisType);
    for (const LatticeCharacter& character : choice.characters) {
        if (!bindsMoreThanAnEllipse(character.bravaisType)) continue;
        const RefinedInstrument other = refinedInstrument(open, from, sense, tiesOf(character));
        const std::string text = isPossible(other) && areAsClose(other.lattice, free.lattice)
                                     ? differences(other, input.known)
                                     : "";
        if (!text.empty())
            return std::string("as ") + LATTICE::shortName(character.bravaisType) + " they ask for " + text;
        if (isBound) return "";
    }
    const std::string text = differences(free, input.known);
    return text.empty() ? "" : "they ask for " + text;
}

double unprovenEllipse(const SymmetryInput& input, const SymmetryChoice& choice) {
    using enum InstrumentTerm;
    const RefinedInstrument& answer = choice.instrument;
    if (!answer.valid || !answer.uses(EllipseCosine)) return 0.0;
    const char system = LATTICE::shortName(choice.characters.front().bravaisType)[0];
    if (system == 'm' || (system == 'o' && choice.refusedHigher)) return answer.ellipse();
    if (system != 'o') return 0.0;
    Eigen::Matrix3d next;
    next << 0, 0, 1, 1, 0, 0, 0, 1, 0;
    Eigen::Matrix3d axes = matrixOf(choice.characters.front());
    double most = 0.0;
    for (int i = 0; i < 3; ++i, axes *= next) {
        const RefinedInstrument lower = refinedInstrument(
            input, choice.refined.lattice.lattice, choice.refined.sense, CellTies::of(LATTICE::mP, axes));
        if (!lower.valid) continue;
        most = std::max(most, std::hypot(answer.model[EllipseCosine] - lower.model[EllipseCosine],
                                         answer.model[EllipseSine] - lower.model[EllipseSine]));
    }
    return most;
}

std::string strainText(const RefinedLattice& tied, const RefinedLattice& untied, LATTICE::BravaisTypes type) {
    constexpr double most = 3.0;  // standard uncertainties
    std::string edges;
    for (std::size_t i = 0; i < 3; ++i) {
        const double difference = std::abs(tied.cell[i] - untied.cell[i]);
        if (!(difference > most * std::hypot(tied.cellSigma[i], untied.cellSigma[i]))) continue;
        edges += (edges.empty() ? "" : ", ") + std::string(1, static_cast<char>('a' + i)) + " " +
                 withUncertainty(tied.cell[i], tied.cellSigma[i]) + " instead of " +
                 withUncertainty(untied.cell[i], untied.cellSigma[i]);
    }
    if (edges.empty()) return edges;
    return std::string("the ties of ") + LATTICE::shortName(type) +
           " move edges by more than three standard uncertainties (" + edges +
           "): the frames are distorted, or the symmetry is lower";
}

}  // namespace vrk
