#include "pipeline/run/PeakCell.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numbers>
#include <string>

#include "cellfinding/CalculateCellIOstuff.h"
#include "indexing/EwaldCurvature.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/SmallMatrices.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/latticesearch/FurtherLattice.h"
#include "pipeline/latticesearch/LatticeFit.h"
#include "pipeline/latticesearch/PeakMerging.h"
#include "pipeline/latticesearch/RecordedWedge.h"
#include "pipeline/run/FurtherCrystals.h"
#include "pipeline/run/PeakPlaces.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

/// Lets the steps write what they see into a folder while it lives.
class DebugDump {
public:
    explicit DebugDump(const std::filesystem::path& folder) : m_active(!folder.empty()) {
        if (!m_active) return;
        makeFolder(folder);
        CalculateCellIOstuff::setFolder(folder.string());
        CalculateCellIOstuff::setWriteData(true);
        CalculateCellIOstuff::setWriteLines(true);
    }
    ~DebugDump() {
        if (!m_active) return;
        CalculateCellIOstuff::setWriteData(false);
        CalculateCellIOstuff::setWriteLines(false);
        CalculateCellIOstuff::setFolder("");
    }
    DebugDump(const DebugDump&) = delete;
    DebugDump& operator=(const DebugDump&) = delete;

    /// Adds the script that shows the files.
    void finish(const Session& session) const {
        if (m_active && !CalculateCellIOstuff::writeGnuplotScript())
            throw Failure("the debug dump is not complete: " + session.lastError());
    }

private:
    bool m_active;
};

void takePoints(const PeakList& peaks, const PeakCellOptions& options, PeakCell& cell) {
    cell.peaks = peaks.reflections->size();
    for (Reflex* reflex : *peaks.reflections) {
        cell.points.emplace_back(reflex->getCenter(0) - peaks.origin[0],
                                 reflex->getCenter(1) - peaks.origin[1],
                                 reflex->getCenter(2) - peaks.origin[2]);
        cell.weights.push_back(reflex->getIntensity());
    }
    // The peaks of a volume are put together already; close ones are those of a split crystal.
    const double found = peaks.head || options.mergeDistance ? 0.0 : mergingDistance(cell.points);
    cell.mergeDistance = options.mergeDistance.value_or(found);
    if (cell.mergeDistance > 0.0) mergePeaks(cell.points, cell.weights, cell.mergeDistance);
}

/// How far the list reaches; lists in other units than voxels show here.
std::string extentText(const Points& points) {
    double farthest = 0.0;
    for (const Vector3d& point : points)
        farthest = std::max(farthest, point.norm());
    std::string text =
        formatted("%zu reflections, the farthest %.4g voxels from the origin", points.size(), farthest);
    if (farthest < 20.0) text += " (is the list in other units? Lengths are in voxels: scale it up)";
    return text;
}

void refuseFlatLists(const Points& points) {
    constexpr std::size_t fewest = 12;
    if (points.size() < fewest)
        throw Failure(formatted("%zu reflections are too few for a cell; at least %zu are needed, and some "
                                "hundred to be sure of it",
                                points.size(), fewest),
                      FailureKind::NothingFound);
    Vector3d mean = Vector3d::Zero();
    for (const Vector3d& point : points)
        mean += point / static_cast<double>(points.size());
    Matrix3d moments = Matrix3d::Zero();
    for (const Vector3d& point : points)
        moments += (point - mean) * (point - mean).transpose() / static_cast<double>(points.size());
    const Vector3d spread = principalAxes(moments).moments.cwiseMax(0.0).cwiseSqrt();
    constexpr double flat = 0.02;
    if (spread[0] > flat * spread[1] && spread[1] > flat * spread[2]) return;
    throw Failure(
        formatted("the %zu reflections lie %s (standard deviations along the principal axes %.3g, "
                  "%.3g and %.3g voxels); a cell needs reflections from three dimensions, as a tilt "
                  "series gives them",
                  points.size(), spread[1] > flat * spread[2] ? "in one plane" : "on one line", spread[2],
                  spread[1], spread[0]),
        FailureKind::NothingFound);
}

/// Why the steps find no lattice, with the values that were given and the first choice of the others.
[[noreturn]] void throwNothingFound(const CellSearch& search, const PeakCell& cell,
                                    const std::vector<LatticeCandidate>& candidates,
                                    const PeakCellOptions& options, Session& session) {
    LatticeCandidate first;
    first.trial = candidates.empty() ? search.firstTrial(cell.points, cell.weights) : candidates[0].trial;
    const DebugDump dump(options.dump);
    const std::unique_ptr<CellSteps> steps = search.stepsOf(first, cell.points, cell.weights);
    dump.finish(session);

    const Parameter parameter = search.parameterOf(first.trial);
    std::string text = extentText(cell.points);
    std::string advice;
    if (!candidates.empty()) {
        const LatticeScore& score = candidates[0].score;
        text = formatted("the best one explains %d of %d reflections, hardly more than chance", score.indexed,
                         score.points);
    } else if (steps->vectors() == 0) {
        text += formatted("; no difference vector is longer than %g and shorter than %g",
                          parameter.getMinLength(), parameter.getMaxLength());
        advice = "use a smaller --min-length or a larger --max-length";
    } else if (steps->clusters().empty()) {
        text += formatted(", %d difference vectors, no clusters", steps->vectors());
        advice = first.trial.clustering == ClusteringMethod::FSC
                     ? "use a larger --max-length"
                     : "use a smaller --min-points or a larger --eps";
    } else {
        text += formatted(", %d difference vectors, %zu clusters, no lattice that beats chance",
                          steps->vectors(), steps->clusters().size());
    }
    const bool isFree = !options.cell.isGiven();
    if (isFree)
        advice =
            "try parameters (--max-length about three times the distance of neighbours, --eps, "
            "--min-points), or another --threshold in 'vrk peaks'";
    else
        advice += std::string(advice.empty() ? "" : ", or ") + "leave parameters out and have them found";
    throw Failure("no cell was found: " + text + "; " + advice, FailureKind::NothingFound);
}

/// The part of reciprocal space that a list was taken from, and the frame in which it turned about y.
struct ListSpace {
    RecordedSpace space;
    Matrix3d toFrame = Matrix3d::Identity();
    bool estimated = false;
    bool isTurned = true;  ///< there is such a frame
};

/// By the head of the file, or by the points where it does not tell.
ListSpace listSpace(const PeakList& peaks, const Points& points) {
    ListSpace known;
    double nearest = std::numeric_limits<double>::infinity();
    double farthest = 0.0;
    for (const Vector3d& point : points) {
        nearest = std::min(nearest, point.norm());
        farthest = std::max(farthest, point.norm());
    }
    RecordedSpace& space = known.space;
    if (peaks.head && peaks.head->firstTilt < peaks.head->lastTilt) {
        space.tiltFirst = peaks.head->firstTilt * kDegree;
        space.tiltLast = peaks.head->lastTilt * kDegree;
        space.halfWidth = 0.5 * peaks.head->size[0];
        space.zeroBeam = std::min(nearest, space.halfWidth);
        return known;
    }
    const RecordedWedge wedge = wedgeOf(points);
    known.estimated = true;
    known.isTurned = wedge.halfAngle < 0.5 * std::numbers::pi;
    known.toFrame = wedge.toFrame;
    space.tiltFirst = -wedge.halfAngle;
    space.tiltLast = wedge.halfAngle;
    constexpr double kBorder = 3.0;  // of a frame, where reflections are not looked for
    space.halfWidth = farthest + kBorder;
    space.zeroBeam = nearest;
    return known;
}

/// How many kinds of ties a metric has: none 0, monoclinic 1, orthorhombic 2, tetragonal and hexagonal 3,
/// cubic 4.
int symmetryOf(const Matrix3d& basis) {
    constexpr LatticeTolerances kExact{0.35, 0.006};
    Lattice lattice;
    lattice.basis = basis;
    int highest = 0;
    for (const LatticeCharacter& character :
         LatticeSymmetry::analyse(niggliReduced(lattice).toUnitCell(), kExact)) {
        const std::string system = LATTICE::shortName(character.bravaisType);
        const std::size_t rank = std::string("amothc").find(system.front());
        constexpr std::array<int, 6> kRanks = {0, 1, 2, 3, 3, 4};
        if (rank < kRanks.size()) highest = std::max(highest, kRanks[rank]);
    }
    return highest;
}

/// Whether an ellipse of the usual strength would show in the metric of a lattice, in the frame of the turn:
/// it takes ties away that the lattice has, and no ellipse gives it more, as it would give back those of a
/// lattice that was seen through one. Along and across the axis an ellipse strains all reciprocal space,
/// diagonally it does so nearly.
bool showsDistortion(const Matrix3d& basis) {
    constexpr double kUsual = 0.01;
    constexpr double kStep = 0.0025;
    constexpr int kAzimuths = 12;
    const int symmetry = symmetryOf(basis);
    for (int i = 0; i < kAzimuths; ++i)
        for (double strength = kStep; strength < kMostEllipse; strength += kStep) {
            const double azimuth = 2.0 * std::numbers::pi * i / kAzimuths;
            const double along = strength * std::cos(azimuth);
            const double diagonal = strength * std::sin(azimuth);
            Matrix3d strain;
            strain << 1.0 + along, diagonal, 0.0,  //
                diagonal, 1.0 - along, 0.0,        //
                0.0, 0.0, 1.0 + along;
            const int strained = symmetryOf(strain * basis);
            const bool isUsual = std::abs(strength - kUsual) < 0.5 * kStep;
            if (strained > symmetry || (isUsual && strained == symmetry)) return false;
        }
    return true;
}

/// What is known of a candidate for points. Nodes count as found that have a point within the radius of the
/// score. The curvature of the Ewald sphere is not known here; it matters at the rim of the recorded space
/// alone.
LatticeEvidence evidenceFor(const LatticeCandidate& candidate, const Points& points, const ListSpace& known) {
    const Lattice& lattice = candidate.lattice;
    const Matrix3d inverse = lattice.basis.inverse();
    std::vector<Indices> indices;
    Points near;
    for (const Vector3d& point : points) {
        if (distanceToNode(point, lattice, inverse) > candidate.score.radius) continue;
        indices.push_back(indexPosition(inverse * (point - lattice.origin), 0.5));
        near.push_back(point);
    }
    LatticeEvidence evidence;
    evidence.score = candidate.score;
    evidence.thinness = thinnessOf(near, lattice.origin);
    if (lattice.pixelSize > 0.0) evidence.finestSpacing = finestSpacing(near, lattice);
    Lattice turned = lattice;
    turned.basis = known.toFrame * lattice.basis;
    turned.origin = known.toFrame * lattice.origin;
    evidence.completeness = completenessOf(turned, indices, known.space);
    evidence.spaceEstimated = known.estimated;
    // Where nobody knows the axis, it may be any.
    Matrix3d next;
    next << 0, 0, 1, 1, 0, 0, 0, 1, 0;
    const int axes = known.isTurned ? 1 : 3;
    for (int i = 0; i < axes; ++i, turned.basis = next * turned.basis)
        evidence.distortionUnseen = evidence.distortionUnseen || !showsDistortion(turned.basis);
    return evidence;
}

/// Takes the points of a lattice out of a list. \returns how many they were
std::size_t takeOut(const LatticeCandidate& candidate, Points& points, std::vector<double>& weights) {
    const Matrix3d inverse = candidate.lattice.basis.inverse();
    std::size_t kept = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (distanceToNode(points[i], candidate.lattice, inverse) <= candidate.score.radius) continue;
        points[kept] = points[i];
        weights[kept++] = weights[i];
    }
    const std::size_t taken = points.size() - kept;
    points.resize(kept);
    weights.resize(kept);
    return taken;
}

/// Looks for crystals in what the first one leaves over, where that is more than a tenth. \returns the share
/// of the points that belongs to them
double findOthers(PeakCell& cell, const ListSpace& space, const CellSearch& search, int most,
                  std::vector<Lattice>& lattices) {
    const auto all = static_cast<double>(cell.points.size());
    Points points = cell.points;
    std::vector<double> weights = cell.weights;
    std::vector<Lattice> known = {cell.answer.lattice};
    takeOut(cell.answer, points, weights);
    double elsewhere = 0.0;
    while (static_cast<int>(known.size()) < most && static_cast<double>(points.size()) > kUnexplained * all) {
        const std::optional<FurtherLattice> found = findFurtherLattice(points, weights, known, &search);
        if (!found) break;
        FurtherPeakCell other;
        const LatticeCandidate& candidate = found->candidate;
        other.sameCell = found->sameCell;
        other.verdict = verdictOn(evidenceFor(candidate, points, space));
        if (other.verdict.lattice == Confidence::Low) break;
        other.turn = turnBetween(cell.answer.lattice.basis, candidate.lattice.basis);
        other.reciprocal = niggliReduced(candidate.lattice).toUnitCell();
        other.symmetry = LatticeSymmetry::best(other.reciprocal);
        other.share = static_cast<double>(takeOut(candidate, points, weights)) / all;
        elsewhere += other.share;
        known.push_back(candidate.lattice);
        lattices.push_back(candidate.lattice);
        cell.others.push_back(std::move(other));
    }
    return elsewhere;
}

/// Refuses a lattice that has its nodes in one layer in some direction, or edges that the list does not
/// reach.
void refuseUndetermined(const PeakCell& cell) {
    const Lattice& lattice = cell.answer.lattice;
    const Matrix3d inverse = lattice.basis.inverse();
    Eigen::AlignedBox3d box, indices;
    for (const Vector3d& point : cell.points) {
        box.extend(point);
        if (distanceToNode(point, lattice, inverse) <= cell.answer.score.radius)
            indices.extend(Vector3d((inverse * (point - lattice.origin)).array().round()));
    }
    const double longest = lattice.basis.colwise().norm().maxCoeff();
    const double extent = box.diagonal().norm();
    if (longest <= extent && (indices.sizes().array() > 0.5).all()) return;
    throw Failure(
        formatted("no cell was found: the best one has a reciprocal edge of %.4g voxels along which "
                  "the list, %.4g voxels across, holds one layer of nodes; a wider tilt range or "
                  "weaker reflections are needed",
                  longest, extent),
        FailureKind::NothingFound);
}

void refuseWrongScale(const PeakCell& cell) {
    if (!cell.hasScale()) return;
    const std::unique_ptr<UnitCell> direct(cell.reciprocal.getReciprocalCell());
    refuseImpossibleScale({direct->getLengthOfA(), direct->getLengthOfB(), direct->getLengthOfC()},
                          cell.pixelSize());
}

/// The reflections as those of a volume about y.
/// \param exact  where the patterns showed them; else voxels, which lie off the pixels they were made of
Level levelOf(const PeakList& peaks, const PeakCell& cell, const ListSpace& known, const Vector3d& origin,
              bool exact) {
    ReflexVectorPtr list(new ReflexVector);
    for (const Vector3d& point : cell.points) {
        const Vector3d place = known.toFrame * point + origin;
        list->push_back(new Reflex(place.x(), place.y(), place.z()));
    }
    std::vector<double> tilts;
    const ReflexVectorPtr places(
        exact ? ReflexVectorPtr(ReflectionPositions::copies(list.get(), 0, origin.data(), &tilts))
              : placesInPatterns(*list, *peaks.head, tilts));
    Level level;
    level.zeroBeam = known.space.zeroBeam;
    for (std::size_t i = 0; i < cell.points.size(); ++i) {
        Reflex& place = *(*places)[i];
        const Vector3d position(place.getCenterInX(), place.getCenterInY(), place.getCenterInZ());
        level.reflections.push_back({position, position, tilts[i], cell.weights[i]});
    }
    return level;
}

/// A way to read a list, and how far from the nodes its reflections lie then.
struct Reading {
    Level level;
    double wavelength = 0.0;  ///< Angstrom
    double squares = std::numeric_limits<double>::infinity();
};

double squaresOf(const RefinedPositions& refined) {
    constexpr double kReach = 2.0;  // voxels
    const Lattice& lattice = refined.lattice.lattice;
    const Matrix3d inverse = lattice.basis.inverse();
    double sum = 0.0;
    for (const Vector3d& position : refined.positions)
        sum += std::pow(std::min(distanceToNode(position, lattice, inverse), kReach), 2);
    return sum;
}

/// With the wavelength that is given, or that of the usual high tensions whose sphere leaves the reflections
/// closest to the nodes; 0 where a plane does as well.
Reading readingOf(Level level, const Lattice& start, double kiloVolts) {
    constexpr std::array<double, 8> kUsual = {0, 60, 80, 100, 120, 160, 200, 300};
    constexpr double kMuchCloser = 0.95;
    const std::vector<Vector3d> positions = level.positions();
    const std::vector<double> tilts = level.tilts();
    Reading best{std::move(level)};
    double flat = best.squares;
    const auto attempt = [&](double wavelength, bool isGiven) {
        RefinementSettings settings;
        settings.wavelength = wavelength;
        const std::optional<RefinedPositions> refined = refinePositions(positions, tilts, start, settings);
        if (!refined) return;
        const double squares = squaresOf(*refined);
        if (wavelength == 0.0) flat = squares;
        const bool isSeen = refined->decided && squares < kMuchCloser * flat;
        if (squares >= best.squares || (wavelength > 0.0 && !isGiven && !isSeen)) return;
        best.wavelength = wavelength;
        best.squares = squares;
    };
    if (kiloVolts > 0.0)
        attempt(EwaldCurvature::wavelength(kiloVolts), true);
    else
        for (const double usual : kUsual)
            if (usual == 0.0 || start.pixelSize > 0.0) attempt(EwaldCurvature::wavelength(usual), false);
    return best;
}

UnitCell reducedCell(Lattice lattice, const Matrix3d& fromFrame) {
    lattice.basis = fromFrame * lattice.basis;
    return niggliReduced(lattice).toUnitCell();
}

/// The character with the cell that obeys its ties.
LatticeCharacter tiedSymmetry(const Indexed& indexed) {
    LatticeCharacter symmetry = indexed.symmetry();
    const std::array<double, 6>& cell = indexed.conventional.cell;
    symmetry.measured = {cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]};
    symmetry.symmetrised = symmetry.measured;
    return symmetry;
}

/// Refines the answer and looks for further crystals as in a run. \returns false where the reflections do not
/// allow it
bool takeRefined(PeakCell& cell, const PeakList& peaks, const ListSpace& known,
                 const std::optional<LatticeCandidate>& rival, const PeakCellOptions& options,
                 Session& session) {
    Recording recording;
    recording.space = known.space;
    recording.centre = peaks.head ? Vector3d(peaks.origin.data()) : Vector3d::Zero();
    recording.pixelSize = cell.pixelSize();
    // Peak files have it along y.
    recording.axisAssumed = known.estimated;
    recording.estimated = known.estimated;
    LatticeChoice choice;
    choice.best = cell.answer;
    choice.best.lattice.basis = known.toFrame * cell.answer.lattice.basis;
    choice.best.lattice.origin = recording.centre;
    choice.runnerUp = rival;
    if (rival) choice.runnerUp->lattice.basis = known.toFrame * rival->lattice.basis;
    const Lattice start = niggliReduced(choice.best.lattice);
    Reading reading =
        readingOf(levelOf(peaks, cell, known, recording.centre, true), start, options.kiloVolts);
    if (peaks.head) {
        // Other programs may have written exact places into a peak file.
        Reading voxels =
            readingOf(levelOf(peaks, cell, known, recording.centre, false), start, options.kiloVolts);
        if (voxels.squares <= reading.squares) reading = std::move(voxels);
    }
    recording.space.wavelength = reading.wavelength;
    Crystals crystals;
    try {
        cell.indexed = indexRecorded({std::move(reading.level)}, choice, recording, session);
        crystals = findFurtherCrystals(*cell.indexed, rival ? &*choice.runnerUp : nullptr, recording,
                                       {options.crystals, true, options.cell}, session);
    } catch (const Failure& failure) {
        if (failure.kind() != FailureKind::NothingFound) throw;
        cell.indexed.reset();
        return false;
    }
    cell.wavelength = recording.space.wavelength;
    const Matrix3d fromFrame = known.toFrame.transpose();
    cell.corrected.clear();
    for (const Vector3d& position : cell.indexed->refined.positions)
        cell.corrected.emplace_back(fromFrame * (position - recording.centre));
    Lattice& lattice = cell.answer.lattice;
    lattice.basis = fromFrame * cell.indexed->lattice().basis;
    lattice.origin = fromFrame * (cell.indexed->lattice().origin - recording.centre);
    cell.answer.score = scoreLattice(cell.corrected, lattice);
    cell.reciprocal = niggliReduced(lattice).toUnitCell();
    cell.symmetry = tiedSymmetry(*cell.indexed);
    cell.completeness = cell.indexed->completeness;
    cell.verdict = cell.indexed->verdict;
    for (const FurtherCrystal& other : crystals.others)
        cell.others.push_back({reducedCell(other.indexed.lattice(), fromFrame), tiedSymmetry(other.indexed),
                               other.indexed.verdict, other.sameCell, other.turn, other.share});
    return true;
}

/// What can be said of a list of which nobody knows how it was recorded.
void judgeUnrefined(PeakCell& cell, const ListSpace& space, const std::optional<LatticeCandidate>& rival,
                    const CellSearch& search, int crystals) {
    cell.reciprocal = niggliReduced(cell.answer.lattice).toUnitCell();
    cell.symmetry = LatticeSymmetry::best(cell.reciprocal);
    LatticeEvidence evidence = evidenceFor(cell.answer, cell.points, space);
    cell.completeness = evidence.completeness;
    std::vector<Lattice> others;
    evidence.elsewhere = findOthers(cell, space, search, crystals, others);
    const bool isCrystal = rival && std::any_of(others.begin(), others.end(), [&](const Lattice& other) {
                               return areAlike(rival->lattice.basis, other.basis);
                           });
    if (rival && !isCrystal) {
        evidence.rivalEvidence = rival->score.evidence;
        evidence.rival = cellText(rival->lattice, cell.pixelSize());
    }
    cell.verdict = verdictOn(evidence);
}

}  // namespace

PeakCell findCell(const PeakList& peaks, const PeakCellOptions& options, Session& session) {
    PeakCell cell;
    if (options.kiloVolts > 0.0) refuseImpossibleVoltage(options.kiloVolts);
    takePoints(peaks, options, cell);
    refuseFlatLists(cell.points);
    CellSearchOptions settings = searchOptions(options.cell, session);
    settings.progressed = [&session](double share) { session.advance(share); };
    const CellSearch search(std::move(settings));
    std::optional<LatticeCandidate> rival;
    {
        const Stage stage(session, "search the cell");
        // What the steps complain about is one trial of many, or part of the message.
        const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
        const std::vector<LatticeCandidate> candidates = search.search(cell.points, cell.weights);
        if (candidates.empty() || !isConvincing(candidates.front().score))
            throwNothingFound(search, cell, candidates, options, session);
        cell.answer = candidates.front();
        if (candidates.size() > 1) {
            rival = candidates[1];
            cell.rivalEvidence = rival->score.evidence;
        }
        cell.parameter = search.parameterOf(cell.answer.trial);
        const std::optional<LatticeCandidate> again = search.repeat(cell.answer, cell.points, cell.weights);
        cell.isReproducible = again.has_value();
        if (again) cell.answer = *again;
    }
    cell.answer.lattice.pixelSize = options.pixelSize > 0.0 ? options.pixelSize
                                    : peaks.head            ? peaks.head->pixelSize
                                                            : 0.0;
    refuseUndetermined(cell);
    cell.corrected = cell.points;
    const ListSpace space = listSpace(peaks, cell.points);
    {
        const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
        if (!space.isTurned || !takeRefined(cell, peaks, space, rival, options, session))
            judgeUnrefined(cell, space, rival, search, options.crystals);
    }
    refuseWrongScale(cell);
    return cell;
}

CellEvaluation evaluate(const PeakCell& cell, const PeakCellOptions& options, Session& session) {
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    const DebugDump dump(options.dump);
    const std::unique_ptr<CellSteps> steps =
        CellSearch(searchOptions(options.cell, session)).stepsOf(cell.answer, cell.points, cell.weights);
    dump.finish(session);
    Lattice lattice = Lattice::of(cell.reciprocal, cell.answer.lattice.origin);
    lattice.pixelSize = cell.pixelSize();
    return steps->evaluate(lattice, cell.answer.score, cell.corrected);
}

}  // namespace vrk
