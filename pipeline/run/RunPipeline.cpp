#include "pipeline/run/RunPipeline.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <numbers>
#include <span>
#include <sstream>

#include "cellfinding/Parameter.h"
#include "crystallography/CellFileImportExport.h"
#include "indexing/CellRefinement.h"
#include "indexing/EwaldCurvature.h"
#include "indexing/HKLfileImportExport.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/SeriesCheck.h"
#include "pipeline/geometry/TiltAxisSearch.h"
#include "pipeline/latticesearch/ReducedCell.h"
#include "pipeline/run/Preprocessing.h"
#include "processing/VoxMRCstemProcessing.h"
#include "reflections/FindReflexes.h"
#include "reflections/PeakFileImportExport.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

/// Thresholds go up in this ratio from the noise.
constexpr double kLadderRatio = 2.0;
constexpr double kLowestThreshold = 5.0;  // standard deviations of the noise
/// A lattice is looked for in lists of at least so many reflections.
constexpr std::size_t kFewReflections = 40;
/// More than this is noise, and would take long.
constexpr std::size_t kManyReflections = 30000;
/// Tolerance of the fractional indices in the final indexing.
constexpr double kIndexTolerance = 0.25;
/// Reflections whose curvature is below this many voxels, or this share of the distance between neighbours,
/// find the lattice; the others follow when it is corrected.
constexpr double kFlatEnough = 1.5;
constexpr double kFlatShare = 0.05;
/// What lens distortion does to the angles and edges of a cell.
constexpr LatticeTolerances kSymmetryTolerances{2.5, 0.03};
/// A list of which this share lies on the lattice is clean.
constexpr double kWellIndexed = 0.95;
/// Evidence, in nats, that thousands of candidate cells do not reach on random points.
constexpr double kLeastEvidence = 60.0;

class Stopwatch {
public:
    explicit Stopwatch(double& seconds) : m_seconds(seconds) {}
    ~Stopwatch() {
        m_seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

private:
    double& m_seconds;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

std::string rounded(double value) {
    std::ostringstream text;
    text.precision(4);
    text << value;
    return text.str();
}

UnitCell cellOf(const Matrix3d& basis, double pixelSize) {
    double vectors[3][3];
    for (int column = 0; column < 3; ++column)
        for (int row = 0; row < 3; ++row)
            vectors[column][row] = basis(row, column);
    return {vectors[0], vectors[1], vectors[2], pixelSize, false, true, LATTICE::aP};
}

/// Plain copies at the centres of the voxels, as the peak file stores them.
ReflexVectorPtr voxelCentres(const ReflexVector& found, int centreType) {
    ReflexVectorPtr copies(new ReflexVector);
    copies->reserve(found.size());
    for (Reflex* reflex : found) {
        auto copy =
            std::make_unique<Reflex>(reflex->getCenter(0, centreType), reflex->getCenter(1, centreType),
                                     reflex->getCenter(2, centreType));
        copy->setIntensity(reflex->getIntensity());
        copies->push_back(copy.release());
    }
    return copies;
}

/// How far a cell is from a symmetry, in degrees; an error of an edge turns the diagonals by as much.
double misfitOf(const LatticeCharacter& character) {
    return std::max(character.qualityIndex, character.lengthMisfit * 180.0 / std::numbers::pi);
}

/// The wide tolerances let a cell pass for one of higher symmetry. Distortions of the lens spoil every
/// symmetry alike; where a lower one, that still ties something, fits ten times better than the highest and
/// the difference is significant, it is the answer.
void preferExactFit(std::vector<LatticeCharacter>& characters, const CellRefinement::Result& refinement) {
    const double noise = *std::max_element(refinement.cellSigma + 3, refinement.cellSigma + 6);
    std::size_t answer = 0;
    for (std::size_t i = 1; i < characters.size(); ++i) {
        if (characters[i].bravaisType == LATTICE::aP) continue;
        const double highest = misfitOf(characters[answer]);
        if (highest > std::max(0.06, 6.0 * noise) && misfitOf(characters[i]) < 0.1 * highest) answer = i;
    }
    std::rotate(characters.begin(), characters.begin() + static_cast<std::ptrdiff_t>(answer),
                characters.begin() + static_cast<std::ptrdiff_t>(answer) + 1);
}

std::string whatToTry() {
    return "try --tilt-axis search if the axis angle is not certain, another --threshold, or check pattern "
           "centre and tilt angles";
}

Confidence confidenceOf(const RunResult& result) {
    const LatticeScore& score = result.lattice.score;
    const double fraction =
        static_cast<double>(result.refinement.lattice.indexed) / static_cast<double>(result.indexed->size());
    const bool rivalled = result.runnerUp && result.runnerUp->score.evidence > 0.8 * score.evidence;
    if (fraction > 0.75 && score.fraction() > 0.6 && score.evidence > 300.0 && !rivalled)
        return Confidence::High;
    return fraction > 0.5 && score.evidence > 120.0 ? Confidence::Fair : Confidence::Low;
}

}  // namespace

const char* nameOf(Confidence confidence) {
    switch (confidence) {
        case Confidence::High:
            return "high";
        case Confidence::Fair:
            return "fair";
        case Confidence::Low:
            break;
    }
    return "low";
}

RunPipeline::RunPipeline(const RunOptions& options, Session& session)
    : m_options(options), m_session(session) {}

RunResult RunPipeline::run() {
    {
        const Stopwatch total(m_result.seconds.total);
        read();
        preprocess();
        findAxis();
        rotate();
        reconstruct();
        searchReflections();
        findCell();
        refine();
        chooseLevel();
        indexFinally();
        analyseSymmetry();
        writeFiles();
    }
    std::vector<double> weights;
    m_result.points = pointsOf(m_result.level, weights);
    m_result.volume = std::move(m_volume);
    return std::move(m_result);
}

PositionRefinement RunPipeline::positionRefinement() const {
    PositionRefinement refinement;
    refinement.setWavelength(wavelength());
    refinement.setTolerance(kIndexTolerance);
    return refinement;
}

double RunPipeline::wavelength() const {
    return EwaldCurvature::wavelength(m_result.kiloVolts);
}

std::array<double, 3> RunPipeline::centre() const {
    return {0.5 * (m_result.volumeSize[0] - 1.0), 0.5 * (m_result.volumeSize[1] - 1.0),
            0.5 * (m_result.volumeSize[2] - 1.0)};
}

void RunPipeline::read() {
    const Stopwatch watch(m_result.seconds.read);
    m_series = readSeries(m_options.series, m_session);
    m_series = checkedSeries(std::move(m_series), m_session);
    const mrcH& header = m_series->m_Header;
    m_result.seriesSize = {header.nx, header.ny, header.nz};
    m_result.tiltFirst = header.tilt(0);
    m_result.tiltLast = header.tilt(header.nz - 1);

    m_result.pixelSize = m_options.pixelSize.value_or(header.m_pixelsize);
    if (!(m_result.pixelSize > 0.0))
        throw Failure(
            "the series does not say its pixel size, without which the cell has no scale; give it "
            "with --pixel-size in 1/m per pixel");
    if (!m_options.fineCalibration.empty())
        if (const double size =
                fineCalibratedPixelSize(m_options.fineCalibration, m_result.pixelSize, m_session);
            size > 0.0)
            m_result.pixelSize = size;
    m_result.kiloVolts = m_options.kiloVolts.value_or(header.value(SliceValue::HighTension, 0));
    if (!(m_result.kiloVolts >= 10.0 && m_result.kiloVolts <= 3000.0)) {
        m_result.kiloVolts = 200.0;
        m_session.warn("the series does not say its high tension; 200 kV are assumed (--voltage)");
    }
}

void RunPipeline::preprocess() {
    const Stopwatch watch(m_result.seconds.preprocess);
    m_series = preprocessed(std::move(m_series), m_session);
    m_noise.emplace(*m_series);
}

void RunPipeline::findAxis() {
    const Stopwatch watch(m_result.seconds.tiltAxis);
    const float inHeader = m_series->m_Header.value(SliceValue::TiltAxis, 0);
    if (m_options.tiltAxis == "none" || (m_options.tiltAxis.empty() && inHeader == 0.0F)) {
        m_result.axisSource = m_options.tiltAxis.empty() ? "assumed" : "option";
    } else if (m_options.tiltAxis == "search") {
        const TiltAxisResult found = findTiltAxis(*m_series, TiltAxisMethod::TwoD, m_options.axisAccuracy,
                                                  m_options.jobs, m_options.folder / "axis", m_session);
        m_result.axisAngle = found.angle;
        m_result.axisUncertainty = found.uncertainty;
        m_result.axisSource = "search";
    } else if (m_options.tiltAxis.empty()) {
        m_result.axisAngle = inHeader;
        m_result.axisSource = "header";
    } else {
        m_result.axisAngle = std::strtod(m_options.tiltAxis.c_str(), nullptr);
        m_result.axisSource = "option";
    }
}

void RunPipeline::rotate() {
    if (m_result.axisAngle == 0.0) return;
    const Stopwatch watch(m_result.seconds.preprocess);
    VoxMRCstemProcessing processing;
    processing.registerObserver(&m_session.progress());
    m_series = runStage(m_session, "rotation", [&] {
        return processing.step3_Rotation2TiltAxis(m_series.get(), false, m_result.axisAngle, 0);
    });
}

void RunPipeline::reconstruct() {
    const Stopwatch watch(m_result.seconds.reconstruct);
    VoxMRCstemProcessing processing;
    processing.registerObserver(&m_session.progress());
    m_volume = runStage(m_session, "reconstruction",
                        [&] { return processing.recoByAngle(m_series.get(), m_result.pixelSize, 0, true); });
    const mrcH& header = m_series->m_Header;
    const std::span<const float> tilts(
        header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)].data(),
        static_cast<std::size_t>(header.nz));
    m_geometry = std::make_unique<SamplingGeometry>(m_volume->GetWidth(), tilts, m_volume->GetDepth());
    m_result.volumeSize = {m_volume->GetWidth(), m_volume->GetHeight(), m_volume->GetDepth()};
    m_series.reset();
    if (m_options.keepVolume) {
        writeData(*m_volume, m_options.folder / "volume.mrc", m_session);
        m_result.files.push_back(m_options.folder / "volume.mrc");
    }
}

ThresholdLevel RunPipeline::searchAt(double threshold) {
    ThresholdLevel level;
    level.threshold = threshold;
    // Five deviations of the halo's noise stay below the threshold.
    level.zeroBeam = std::clamp(m_noise->haloRadius(threshold, 5.0), 4.0, m_result.volumeSize[0] / 10.0);
    Parameter parameter;
    parameter.setThreshold(threshold);
    parameter.setMinDistToZeroBeam(level.zeroBeam);
    parameter.setWhichReflectionMiddleShouldUsed(3);
    m_options.search.applyTo(parameter);
    level.zeroBeam = parameter.getCutOffZeroBeam() ? parameter.getMinDistToZeroBeam() : 0.0;
    level.minVoxels = parameter.getMinCountOfVoxel();

    FindReflexes finder;
    finder.registerObserver(&m_session.progress());
    ReflexVectorPtr found;
    {
        const Stage stage(m_session, "reflections");
        found.reset(finder.findAllReflexes(m_volume.get(), &parameter, false, nullptr));
    }
    m_session.checkCanceled();
    if (!found) throw Failure("the reflection search failed: " + m_session.lastError());
    level.positions.reset(ReflectionPositions::fromSamples(found.get(), *m_geometry, &level.tilts));
    level.voxelCentres = voxelCentres(*found, parameter.getWhichReflectionMiddleShouldUsed());
    return level;
}

void RunPipeline::searchReflections() {
    const Stopwatch watch(m_result.seconds.search);
    if (m_options.search.threshold) {
        m_levels.push_back(searchAt(*m_options.search.threshold));
    } else {
        const double lowest = kLowestThreshold * m_noise->typicalVoxelSigma();
        for (double threshold = std::max(1.0, std::round(lowest)); threshold < 32767.0;
             threshold = std::round(threshold * kLadderRatio)) {
            ThresholdLevel level = searchAt(threshold);
            const std::size_t count = level.positions->size();
            if (count > kManyReflections) continue;
            if (count < kFewReflections && !m_levels.empty()) break;
            m_levels.push_back(std::move(level));
        }
    }
    const bool any = std::any_of(m_levels.begin(), m_levels.end(),
                                 [](const ThresholdLevel& level) { return !level.positions->empty(); });
    if (!any)
        throw Failure("no reflections were found (noise of the volume " +
                          rounded(m_noise->typicalVoxelSigma()) + " counts); " + whatToTry(),
                      FailureKind::NothingFound);
}

Points RunPipeline::pointsOf(const ThresholdLevel& level, std::vector<double>& weights) const {
    const std::array<double, 3> origin = centre();
    const EwaldCurvature curvature(wavelength(), m_result.pixelSize);
    Points points;
    std::vector<double> steps;
    weights.clear();
    for (Reflex* reflex : *level.positions) {
        const double relative[3] = {reflex->getCenter(0) - origin[0], reflex->getCenter(1) - origin[1],
                                    reflex->getCenter(2) - origin[2]};
        points.emplace_back(relative[0], relative[1], relative[2]);
        weights.push_back(reflex->getIntensity());
        steps.push_back(curvature.step(relative));
    }
    const double most = std::max(kFlatEnough, kFlatShare * neighbourDistance(points, 4));
    std::size_t kept = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (steps[i] > most) continue;
        points[kept] = points[i];
        weights[kept++] = weights[i];
    }
    points.resize(kept);
    weights.resize(kept);
    return points;
}

void RunPipeline::findCell() {
    const Stopwatch watch(m_result.seconds.cell);
    CellSearchOptions options;
    options.minLength = m_options.cell.minLength;
    options.maxLength = m_options.cell.maxLength;
    options.eps = m_options.cell.eps;
    options.minPts = m_options.cell.minPoints;
    options.adjust = [this](Parameter& parameter) { m_options.cell.applyTo(parameter); };
    options.canceled = [this] {
        m_session.checkCanceled();
        return false;
    };
    const CellSearch search(options);
    // Parameter sets that find no cluster are part of the search, not news.
    const QuietLog quiet(m_session, QuietLog::Keep::InLogAlone);
    double evidence = 0.0;
    for (std::size_t i = m_levels.size(); i-- > 0;) {
        std::vector<double> weights;
        const Points points = pointsOf(m_levels[i], weights);
        std::vector<LatticeCandidate> candidates = search.search(points, weights);
        if (candidates.empty()) continue;
        // A lower threshold has more points and with them more evidence; what counts is that it is not
        // bought with reflections that fit badly.
        const LatticeScore& score = candidates.front().score;
        const double merit = score.evidence * score.fraction();
        if (merit <= evidence) continue;
        evidence = merit;
        m_best = i;
        m_result.lattice = candidates.front();
        m_result.runnerUp.reset();
        if (candidates.size() > 1) m_result.runnerUp = candidates[1];
    }
    const LatticeScore& score = m_result.lattice.score;
    if (score.evidence < kLeastEvidence || score.fraction() < 0.15) {
        std::ostringstream text;
        text << "no lattice was found among ";
        for (const ThresholdLevel& level : m_levels)
            text << level.positions->size() << (&level == &m_levels.back() ? "" : ", ");
        text << " reflections (thresholds ";
        for (const ThresholdLevel& level : m_levels)
            text << level.threshold << (&level == &m_levels.back() ? "" : ", ");
        text << ")";
        if (score.evidence > 0.0)
            text << "; the best cell explains " << score.indexed << " of " << score.points
                 << ", hardly more than chance";
        throw Failure(text.str() + "; " + whatToTry(), FailureKind::NothingFound);
    }
    m_result.cellThreshold = m_levels[m_best].threshold;
    m_result.trial = m_result.lattice.trial;
}

void RunPipeline::refine() {
    const Stopwatch watch(m_result.seconds.cell);
    std::array<double, 3> origin = centre();
    UnitCell cell = niggliReduced(cellOf(m_result.lattice.lattice.basis, m_result.pixelSize));
    PositionRefinement refinement = positionRefinement();
    const ThresholdLevel& level = m_levels[m_best];
    const ReflexVectorPtr corrected(
        refinement.refine(level.positions.get(), level.tilts, &cell, origin.data()));
    if (!corrected)
        throw Failure("a lattice was found, but its cell could not be refined; " + whatToTry(),
                      FailureKind::NothingFound);
    m_result.reciprocal = niggliReduced(cell);
}

bool RunPipeline::indexLevel(ThresholdLevel& level) const {
    std::array<double, 3> origin = centre();
    UnitCell cell(m_result.reciprocal);
    PositionRefinement refinement = positionRefinement();
    const ReflexVectorPtr corrected(
        refinement.refine(level.positions.get(), level.tilts, &cell, origin.data()));
    level.indexed = corrected ? refinement.result().lattice.indexed : 0;
    return corrected != nullptr;
}

void RunPipeline::chooseLevel() {
    const Stopwatch watch(m_result.seconds.index);
    std::size_t chosen = m_best;
    indexLevel(m_levels[m_best]);
    // Going down from the threshold that gave the lattice, reflections are added as long as nearly all lie
    // on the lattice, or, where distortions never let them, most of those that come.
    for (std::size_t i = m_best; i-- > 0;) {
        if (!indexLevel(m_levels[i])) break;
        const double come = static_cast<double>(m_levels[i].positions->size()) -
                            static_cast<double>(m_levels[chosen].positions->size());
        const double indexed = m_levels[i].indexed - m_levels[chosen].indexed;
        const bool wholeOnLattice = m_levels[i].fraction() >= kWellIndexed;
        const bool wasBetter = m_levels[chosen].fraction() >= kWellIndexed;
        if (!wholeOnLattice && (wasBetter || indexed < 0.8 * come)) break;
        chosen = i;
    }
    for (std::size_t i = m_best + 1; chosen == m_best && i < m_levels.size(); ++i) {
        if (m_levels[chosen].fraction() >= 0.9 || !indexLevel(m_levels[i])) break;
        const bool better = m_levels[i].fraction() > m_levels[chosen].fraction() + 0.02 &&
                            m_levels[i].positions->size() > 150;
        if (!better) break;
        chosen = m_best = i;
    }
    m_result.level = std::move(m_levels[chosen]);
    m_levels.clear();
}

void RunPipeline::indexFinally() {
    const Stopwatch watch(m_result.seconds.index);
    std::array<double, 3> origin = centre();
    PositionRefinement refinement = positionRefinement();
    const ThresholdLevel& level = m_result.level;
    UnitCell cell(m_result.reciprocal);
    m_result.indexed.reset(refinement.refine(level.positions.get(), level.tilts, &cell, origin.data()));
    if (!m_result.indexed)
        throw Failure("the reflections could not be indexed: " + m_session.lastError(),
                      FailureKind::NothingFound);
    m_result.reciprocal = cell;
    m_result.refinement = refinement.result();

    double longest = 0.0;
    for (Reflex* reflex : *m_result.indexed) {
        if (!reflex->isIndicated()) continue;
        const double dx = reflex->getCenter(0) - origin[0];
        const double dy = reflex->getCenter(1) - origin[1];
        const double dz = reflex->getCenter(2) - origin[2];
        longest = std::max(longest, std::sqrt(dx * dx + dy * dy + dz * dz));
    }
    m_result.confidence = confidenceOf(m_result);
    m_result.resolution = longest > 0.0 ? 1e10 / (longest * m_result.pixelSize) : 0.0;
}

void RunPipeline::analyseSymmetry() {
    const Stopwatch watch(m_result.seconds.index);
    m_result.characters = LatticeSymmetry::analyse(m_result.reciprocal, kSymmetryTolerances);
    if (m_result.characters.empty())
        throw Failure("the refined cell spans no lattice; " + whatToTry(), FailureKind::NothingFound);
    preferExactFit(m_result.characters, m_result.refinement.lattice);
    const LatticeCharacter& answer = m_result.characters.front();
    std::array<double, 3> origin = centre();
    double toConventional[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            toConventional[i][j] = answer.toConventional[i][j];
    PositionRefinement refinement = positionRefinement();
    refinement.setConstraint(answer.bravaisType, toConventional);
    UnitCell cell(m_result.reciprocal);
    const ReflexVectorPtr corrected(
        refinement.refine(m_result.level.positions.get(), m_result.level.tilts, &cell, origin.data()));
    m_result.constrained = corrected ? refinement.result() : m_result.refinement;
}

void RunPipeline::writeFiles() {
    const std::filesystem::path& folder = m_options.folder;
    const auto write = [&](const char* name, auto writer) {
        OutputFile file(folder / name);
        if (!writer(file.path().string()))
            throw Failure("cannot write " + (folder / name).string() + ": " + m_session.lastError());
        file.commit();
        m_result.files.push_back(folder / name);
    };
    write("peaks.txt", [&](const std::string& path) {
        const std::array<unsigned, 3>& size = m_result.volumeSize;
        return PeakFileImportExport::writePeakFile_version_2(
            path, m_result.level.voxelCentres.get(), 3, static_cast<int>(size[0]), static_cast<int>(size[1]),
            static_cast<int>(size[2]), m_result.tiltFirst, m_result.tiltLast, m_result.pixelSize, 0.0, 0.0,
            false);
    });
    write("cell.txt", [&](const std::string& path) {
        return CellFileImportExport::writeCellFile_version_2(path, &m_result.reciprocal);
    });
    // The pieces of a reflection that broke up count together.
    ReflexVectorPtr whole(new ReflexVector);
    for (const IndexedReflection& reflection : indexedReflections(*m_result.indexed, conventionalMatrix())) {
        auto reflex = std::make_unique<Reflex>(0.0, 0.0, 0.0);
        reflex->setHKL(reflection.h, reflection.k, reflection.l);
        reflex->setIntensity(reflection.intensity);
        whole->push_back(reflex.release());
    }
    m_result.uniqueIndices = whole->size();
    // The change of the number format is no news for the reader of the summary.
    const QuietLog quiet(m_session, QuietLog::Keep::InLogAlone);
    write("reflections.hkl",
          [&](const std::string& path) { return HKLfileImportExport::exportHKLFile(whole.get(), path); });
}

const int (*RunPipeline::conventionalMatrix() const)[3] {
    return m_result.characters.empty() ? nullptr : m_result.characters.front().toConventional;
}

}  // namespace vrk
