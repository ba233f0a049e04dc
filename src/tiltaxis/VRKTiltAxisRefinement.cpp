#include "tiltaxis/VRKTiltAxisRefinement.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <ctime>
#include <exception>
#include <filesystem>
#include <limits>
#include <numeric>
#include <span>
#include <sstream>
#include <system_error>
#include <utility>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "foundation/detail/Log.h"
#include "processing/VoxMRCstemProcessing.h"
#include "reflections/FindReflexes.h"
#include "reflections/ReflexOnGrid.h"
#include "tiltaxis/FindReflexes2d.h"
#include "tiltaxis/ReflectionTransformation.h"
#include "tiltaxis/ReflexMerger2d.h"
#include "tiltaxis/VRKSphericalProjection.h"
#include "tiltaxis/detail/EvaluationSeries.h"
#include "visualisation/GnuplotScript.h"
#include "visualisation/VoxOpenCV.h"

using VRK::detail::line;
using VRK::detail::log;

namespace {

constexpr unsigned kLargestSize = 256;
constexpr double kThreshold = 125.0;
constexpr double kMinLength = 30.5;
constexpr double kMaxLength = 1000.0;
constexpr int kBins = 512;
constexpr std::size_t kMostReflexes = 1500;
constexpr std::size_t kFewestReflexes = 20;
constexpr std::size_t kEnoughReflexes = 1000;
constexpr double kWorthwhileGain = 1.1;
/// Where the number of reflections is looked at before the search.
constexpr std::array<float, 4> kProbeAngles = {22.5F, 67.5F, -67.5F, -22.5F};
constexpr double kFirstStart = -90.0;
constexpr double kFirstEnd = 90.0;
constexpr double kFirstStep = 5.0;
constexpr int kStepsToEitherSide = 10;
constexpr double kFinestAccuracy = 1e-4;
constexpr double kMostAngles = 100000.0;
constexpr const char* kPlotsSuffix = "_searchTiltAxis_plots";

/// What keeps a series from being searched; empty when nothing does.
std::string problemOf(const VoxMRCData* series) {
    if (!series) return "there is no series";
    if (series->GetDimCount() != 3 || series->GetDataSize() == 0 ||
        series->GetStorageMethod() != Storage_BySlice)
        return "the series holds no patterns";
    if (series->GetDepth() < 2) return "one pattern tells nothing about a tilt axis; a series is needed";
    if (series->GetDepth() > static_cast<unsigned>(mrcH::kMaxSlices))
        return line("the series has ", series->GetDepth(), " patterns, and only ", mrcH::kMaxSlices,
                    " have a tilt angle");
    for (int i = 1; i < static_cast<int>(series->GetDepth()); ++i)
        if (!(series->m_Header.tilt(i) >= series->m_Header.tilt(i - 1)))
            return line("the tilt angles do not ascend: pattern ", i, " has ", series->m_Header.tilt(i),
                        " after ", series->m_Header.tilt(i - 1), " degrees; sort the series by tilt");
    if (series->m_Header.tilt(0) == series->m_Header.tilt(static_cast<int>(series->GetDepth()) - 1))
        return "all patterns have the same tilt angle; give the series its tilt angles";
    return {};
}

std::string problemOf(const std::string& folder) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder, ignored))
        return line("the folder ", folder, " does not exist");
    if (access(folder.c_str(), W_OK | X_OK) != 0) return line("the folder ", folder, " cannot be written");
    return {};
}

Parameter evaluationParameter() {
    Parameter parameter;
    parameter.setThreshold(kThreshold);
    parameter.setMinLength(kMinLength);
    parameter.setMaxLength(kMaxLength);
    parameter.setReflexOptionsChanged(true);
    parameter.setDiffVectorOptionsChanged(true);
    parameter.setClusterOptionsChanged(true);
    parameter.setCellOptionsChanged(true);
    return parameter;
}

double compactnessOf(const ReflexVector& reflexes) {
    double voxels = 0.0, boxes = 0.0;
    for (Reflex* reflex : reflexes)
        if (const auto* region = dynamic_cast<const ReflexOnGrid*>(reflex)) {
            voxels += reflex->getNumberOfVoxels();
            boxes += region->getWidth() * region->getHeight() * region->getDepth();
        }
    return boxes > 0.0 ? voxels / boxes : 0.0;
}

/// Leaves the most intense ones, in their order.
void limitNumber(ReflexVectorPtr& reflexes, std::size_t limit) {
    if (reflexes->size() <= limit) return;
    std::vector<std::size_t> order(reflexes->size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    const auto end = order.begin() + static_cast<std::ptrdiff_t>(limit);
    std::nth_element(order.begin(), end, order.end(), [&](std::size_t a, std::size_t b) {
        const double first = (*reflexes)[a]->getIntensity(), second = (*reflexes)[b]->getIntensity();
        return first != second ? first > second : a < b;
    });
    std::sort(order.begin(), end);
    std::sort(end, order.end());
    ReflexVector rest;
    for (auto it = end; it != order.end(); ++it)
        rest.push_back((*reflexes)[*it]);
    for (std::size_t i = 0; i < limit; ++i)
        (*reflexes)[i] = (*reflexes)[order[i]];
    reflexes->resize(limit);
    rest.destroyElements();
}

double relativeVariance(double variance, std::int64_t vectors) {
    const double mean = static_cast<double>(vectors) / (kBins * kBins);
    return mean > 0.0 ? variance / (mean * mean) : 0.0;
}

/// Angles start, start + step, ... up to end, compared in the precision in which they are used.
std::vector<float> anglesBetween(double start, double end, double step) {
    std::vector<float> angles;
    for (int i = 0;; ++i) {
        const float angle = static_cast<float>(start + i * step);
        if (!(angle <= static_cast<float>(end))) return angles;
        angles.push_back(angle);
    }
}

std::vector<float> anglesAround(double centre, double step) {
    std::vector<float> angles;
    for (int i = -kStepsToEitherSide; i <= kStepsToEitherSide; ++i)
        angles.push_back(static_cast<float>(centre + i * step));
    return angles;
}

double processSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

/// One series of the statistics.
struct Statistic {
    const char* name;
    double (*value)(const TiltAxisScore&);
};

constexpr std::array<Statistic, 4> kStatistics = {{
    {"differenceVectorSpace_histogram_variance", [](const TiltAxisScore& s) { return s.variance; }},
    {"differenceVectorSpace_histogram_variance2", [](const TiltAxisScore& s) { return s.relativeVariance; }},
    {"differenceVectorSpace histogram_maxValue",
     [](const TiltAxisScore& s) { return static_cast<double>(s.maxValue); }},
    {"3d volume compactness", [](const TiltAxisScore& s) { return s.compactness; }},
}};

std::string fileNameOf(std::string name) {
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

/// The 2-D route has no volume whose compactness could be plotted.
bool isMeasured(const Statistic& statistic, const std::vector<TiltAxisScore>& scores) {
    return std::any_of(scores.begin(), scores.end(),
                       [&](const TiltAxisScore& score) { return statistic.value(score) != 0.0; });
}

/// Half the width of a view of the peak, degrees: some of the finest steps.
double peakWidth(const std::vector<TiltAxisScore>& sorted) {
    constexpr double kSteps = 20.0;
    double finest = kFirstStep;
    for (std::size_t i = 1; i < sorted.size(); ++i)
        if (const double step = sorted[i].angle - sorted[i - 1].angle; step > 1e-5)
            finest = std::min(finest, step);
    return kSteps * finest;
}

void plot(const Statistic& statistic, std::vector<TiltAxisScore> scores, double bestAngle,
          const std::string& folder) {
    std::stable_sort(scores.begin(), scores.end(),
                     [](const TiltAxisScore& a, const TiltAxisScore& b) { return a.angle < b.angle; });
    std::vector<double> rows;
    for (const TiltAxisScore& score : scores)
        rows.insert(rows.end(), {score.angle, score.evaluated ? statistic.value(score)
                                                              : std::numeric_limits<double>::quiet_NaN()});
    GnuplotScript script(folder, fileNameOf(statistic.name));
    const std::string data = script.addData(line("angle ", fileNameOf(statistic.name)), rows, 2);
    script.addCommand("set xlabel " + GnuplotScript::quoted("angle of the tilt axis (degrees)"));
    script.addCommand("set grid");
    script.addCommand("set key off");
    script.addCommand(
        line("set arrow from ", bestAngle, ", graph 0 to ", bestAngle, ", graph 1 nohead dashtype 2"));
    const std::string curve = "plot " + data + " using 1:2 with linespoints pointtype 7 pointsize 0.6";
    script.addCommand("set multiplot layout 2,1 title " +
                      GnuplotScript::quoted(line(statistic.name, ", best angle ", bestAngle, " degrees")) +
                      " noenhanced");
    script.addCommand(curve);
    // The scale follows what is in the view.
    const double width = peakWidth(scores);
    script.addCommand(line("set xrange [", bestAngle - width, ":", bestAngle + width, "]"));
    script.addCommand("set autoscale y; " + curve);
    script.addCommand("unset multiplot");
    script.render();
}

}  // namespace

/// Stops the operations that the search consists of when it shall stop. Their steps are not those of the
/// search.
class VRKTiltAxisRefinement::StopRelay : public VoxProgressObserver {
public:
    explicit StopRelay(const VRKTiltAxisRefinement& search) : m_search(search) {}
    void updateStep(int) override {
        if (m_search.stopRequested()) cancel();
    }
    void logMessage(const char*, Vox::MessageType) override {}

private:
    const VRKTiltAxisRefinement& m_search;
};

VRKTiltAxisRefinement::VRKTiltAxisRefinement() : m_logger(VRKLogger::getInstance()) {
    m_logger->log(">> Constructor VRKTiltAxisRefinement", VRK::Debug, VRK::ObjectControl);
    m_logger->log("<< Constructor VRKTiltAxisRefinement", VRK::Debug, VRK::ObjectControl);
}

VRKTiltAxisRefinement::~VRKTiltAxisRefinement() {
    m_logger->log(">> Destructor VRKTiltAxisRefinement", VRK::Debug, VRK::ObjectControl);
    m_logger->log("<< Destructor VRKTiltAxisRefinement", VRK::Debug, VRK::ObjectControl);
}

float VRKTiltAxisRefinement::searchTiltAxisAutomated3D(VoxMRCData* tiltSeries, std::string name,
                                                       std::string folderName2SaveResults,
                                                       double angularAccuracy) {
    return searchAutomated(tiltSeries, name, folderName2SaveResults, angularAccuracy, true);
}

float VRKTiltAxisRefinement::searchTiltAxis2dBruteForce(VoxMRCData* tiltSeries, std::string name,
                                                        std::string folderName2SaveResults,
                                                        double angularAccuracy) {
    return searchAutomated(tiltSeries, name, folderName2SaveResults, angularAccuracy, false);
}

float VRKTiltAxisRefinement::searchTiltAxisManual3D(VoxMRCData* tiltSeries, std::string name,
                                                    std::string folderName2SaveResults, double start,
                                                    double end, double stepsize) {
    return searchManual(tiltSeries, name, folderName2SaveResults, start, end, stepsize, true);
}

float VRKTiltAxisRefinement::searchTiltAxisManual2D(VoxMRCData* tiltSeries, std::string name,
                                                    std::string folderName2SaveResults, double start,
                                                    double end, double stepsize) {
    return searchManual(tiltSeries, name, folderName2SaveResults, start, end, stepsize, false);
}

float VRKTiltAxisRefinement::searchAutomated(VoxMRCData* tiltSeries, const std::string& name,
                                             const std::string& folder, double angularAccuracy, bool mode3D) {
    log(line("start method searchTiltAxisAutomated (class VRKTiltAxisRefinement) with ", " angular accuracy ",
             angularAccuracy, " degree "));
    if (folder.empty()) {
        log("VRKTiltAxisRefinement::searchTiltAxisAutomated: folderName2SaveResults ==  \n", VRK::Error);
        return kNoAngle;
    }
    const double startSeconds = processSeconds();
    int iterations = 2;
    double accuracy = std::max(angularAccuracy, kFinestAccuracy);
    while (accuracy < 1.0) {
        accuracy *= 10.0;
        ++iterations;
    }
    log(line("iterations = ", iterations));
    const int steps = 20 * iterations + 19;
    log(line("steps = ", steps));
    setSteps(steps, "Tilt axis");
    updateStep(0);
    if (!prepare(tiltSeries, name, folder, mode3D)) return kNoAngle;

    for (int i = 0; i < iterations && !m_stopped; ++i) {
        const double step = i == 0 ? kFirstStep : std::pow(10.0, 1 - i);
        const std::vector<float> angles =
            i == 0 ? anglesBetween(kFirstStart, kFirstEnd, step) : anglesAround(m_bestTiltAxisAngle, step);
        log(line("=== Iteration ", i, " start ", angles.front(), " end ", angles.back(), " stepsize ", step,
                 "=============================================="));
        evaluateAngles(angles, name, mode3D);
    }
    return finish(name, startSeconds);
}

float VRKTiltAxisRefinement::searchManual(VoxMRCData* tiltSeries, const std::string& name,
                                          const std::string& folder, double start, double end,
                                          double stepsize, bool mode3D) {
    static constexpr const char* kName = "VRKTiltAxisRefinement::searchTiltAxisManual: ";
    log(line("start method searchTiltAxisManual (class VRKTiltAxisRefinement) from ", start, " to ", end,
             " in steps of ", stepsize, " degree "));
    if (folder.empty()) {
        log(line(kName, "folderName2SaveResults ==  \n"), VRK::Error);
        return kNoAngle;
    }
    // Also false for what is not a number.
    if (!(stepsize > 0.0 && start <= end && (end - start) / stepsize < kMostAngles)) {
        log(line(kName, "there are no angles from ", start, " to ", end, " in steps of ", stepsize,
                 ", or too many"),
            VRK::Error);
        return kNoAngle;
    }
    const double startSeconds = processSeconds();
    const std::vector<float> angles = anglesBetween(start, end, stepsize);
    setSteps(static_cast<int>(angles.size()), "Tilt axis");
    updateStep(0);
    if (!prepare(tiltSeries, name, folder, mode3D)) return kNoAngle;
    evaluateAngles(angles, name, mode3D);
    return finish(name, startSeconds);
}

bool VRKTiltAxisRefinement::prepare(VoxMRCData* tiltSeries, const std::string& name,
                                    const std::string& folder, bool mode3D) {
    initStat();
    std::string problem = problemOf(tiltSeries);
    if (problem.empty()) problem = problemOf(folder);
    if (!problem.empty()) {
        log(line("VRKTiltAxisRefinement: ", name, name.empty() ? "" : ": ", problem), VRK::Error);
        return false;
    }
    m_accepted = true;
    m_folder = folder;
    m_workingVolume = tiltSeries;
    if (prepareRoute(mode3D)) return true;
    if (m_stopped) log("Tilt axis search canceled in its preparation.", VRK::Warning);
    releasePrepared();
    return false;
}

bool VRKTiltAxisRefinement::prepareRoute(bool mode3D) {
    if (mode3D && !limitSize()) return false;
    StopRelay relay(*this);
    FindReflexes2d search;
    search.registerObserver(&relay);
    m_spots.reset(search.findAllReflexes(m_workingVolume));
    if (stopNow() || !m_spots) return false;
    if (mode3D) {
        const ReflexVectorPtr spots = std::move(m_spots);
        return prepareVolumeRoute(*spots);
    }
    if (m_spots->empty())
        log("VRKTiltAxisRefinement: no reflections were found in the patterns; check the preprocessing of "
            "the "
            "series",
            VRK::Error);
    return !m_spots->empty();
}

bool VRKTiltAxisRefinement::stopNow() {
    m_stopped = m_stopped || stopRequested();
    return m_stopped;
}

void VRKTiltAxisRefinement::releasePrepared() {
    m_evaluatedSeries.reset();
    m_spots.reset();
    if (m_rebinned) {
        m_rebinned.reset();
        log("rebinned volume deleted");
    }
    m_workingVolume = nullptr;
}

bool VRKTiltAxisRefinement::limitSize() {
    StopRelay relay(*this);
    VoxMRCstemProcessing processing;
    processing.registerObserver(&relay);
    const auto replaceBy = [&](VoxMRCData* copy, const char* what) {
        if (m_rebinned) log("delete temporary dataset");
        m_rebinned.reset(copy);
        m_workingVolume = copy;
        if (!copy && !stopNow())
            log(line("VRKTiltAxisRefinement: the series could not be ", what), VRK::Error);
        return copy != nullptr;
    };
    if (m_workingVolume->GetWidth() != m_workingVolume->GetHeight() &&
        !replaceBy(processing.PadToSquare(m_workingVolume), "padded to squares"))
        return false;
    while (m_workingVolume->GetWidth() > kLargestSize) {
        if (!replaceBy(processing.DownsampleImageStack(m_workingVolume, true, 0), "downsampled"))
            return false;
        log(line("input volume rebinned to ", m_workingVolume->GetWidth(), " x ",
                 m_workingVolume->GetHeight(), " x ", m_workingVolume->GetDepth()));
    }
    return true;
}

bool VRKTiltAxisRefinement::scaleSeries(double level) {
    m_evaluatedSeries = VRK::detail::scaledSeries(*m_workingVolume, kThreshold / level);
    if (!m_evaluatedSeries) log("VRKTiltAxisRefinement: there is no memory for a scaled series", VRK::Error);
    return m_evaluatedSeries != nullptr;
}

std::size_t VRKTiltAxisRefinement::countReflexes(float angle) {
    TiltAxisScore unused;
    const ReflexVectorPtr reflexes = reflexesFromVolume(angle, unused);
    return reflexes ? reflexes->size() : 0;
}

/// Lower levels give more reflections, until neighbours grow together. False when stopped or out of memory.
bool VRKTiltAxisRefinement::findLevel(const std::vector<double>& levels, double& best, std::size_t& count) {
    for (const double level : levels) {
        if (!scaleSeries(level)) return false;
        const std::size_t found = countReflexes(kProbeAngles.front());
        if (stopNow()) return false;
        if (static_cast<double>(found) < kWorthwhileGain * static_cast<double>(count)) break;
        count = std::max(count, found);
        best = level;
        if (count >= kEnoughReflexes) break;
    }
    return true;
}

bool VRKTiltAxisRefinement::prepareVolumeRoute(const ReflexVector& spots) {
    const double beamRadius = evaluationParameter().getMinDistToZeroBeam();
    const ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(&spots));
    std::vector<double> levels = VRK::detail::evaluationLevels(*merged, beamRadius);
    // The volume, where several patterns add up, may show what none of them does.
    if (levels.empty()) levels = VRK::detail::brightPixelLevels(*m_workingVolume, beamRadius);
    double best = 0.0;
    std::size_t least = 0;
    if (!findLevel(levels, best, least)) return false;
    if (least == 0) {
        log("VRKTiltAxisRefinement: the series shows no reflections beyond the direct beam", VRK::Error);
        return false;
    }
    if (!scaleSeries(best)) return false;
    for (const float angle : kProbeAngles) {
        least = std::min(least, countReflexes(angle));
        if (stopNow()) return false;
    }
    m_reflexLimit = std::clamp<std::size_t>(least * 4 / 5, kFewestReflexes, kMostReflexes);
    log(line("the series is scaled by ", kThreshold / best, " for the evaluation: a value of ", best,
             " reaches the threshold of ", kThreshold, "; the ", m_reflexLimit,
             " most intense reflections take part"));
    return true;
}

float VRKTiltAxisRefinement::finish(const std::string& name, double startSeconds) {
    releasePrepared();
    if (m_stopped) {
        log(line("Tilt axis search canceled after ", m_scores.size(), " angles."), VRK::Warning);
        return kNoAngle;
    }
    const double seconds = std::round((processSeconds() - startSeconds) * 1000.0) / 1000.0;
    log(line("Automated tilt axis search completed in ", seconds, " seconds."));
    if (!(m_bestVariance > 0.0)) {
        log("VRKTiltAxisRefinement: no angle gave difference vectors; the series shows too few "
            "reflections, or its tilts are not known",
            VRK::Error);
        return kNoAngle;
    }
    result_logging();
    finishStatistics(
        (std::filesystem::path(m_folder) / (std::filesystem::path(name).filename().string() + kPlotsSuffix))
            .string(),
        m_bestTiltAxisAngle, m_bestVariance, seconds);
    return static_cast<float>(m_bestTiltAxisAngle);
}

void VRKTiltAxisRefinement::evaluateAngles(const std::vector<float>& angles, const std::string& name,
                                           bool mode3D) {
    for (const float angle : angles) {
        if (!beginAngle(angle)) return;
        evaluateTiltAxis(angle, name, mode3D);
    }
}

bool VRKTiltAxisRefinement::beginAngle(float angle) {
    updateStep(++m_progress);
    if (stopNow()) return false;
    log(line("========== angle: ", angle, "  =============="));
    return true;
}

void VRKTiltAxisRefinement::evaluateTiltAxis(float angle, std::string, bool mode3D) {
    recordScore(scoreAngle(angle, mode3D));
}

TiltAxisScore VRKTiltAxisRefinement::scoreAngle(float angle, bool mode3D) {
    TiltAxisScore score;
    score.angle = angle;
    ReflexVectorPtr reflexes = mode3D ? reflexesFromVolume(angle, score) : reflexesFromPatterns(angle);
    if (!reflexes) return score;
    limitNumber(reflexes, m_reflexLimit);
    Parameter parameter = evaluationParameter();
    std::vector<int> image(static_cast<std::size_t>(kBins) * kBins);
    score.variance = VRKSphericalProjection::getSphericalHistoImageOfPairs(
        reflexes.get(), &parameter, image.data(), kBins, kBins, &score.maxValue, &score.diffVectors, false);
    score.evaluated = true;
    score.reflexes = static_cast<int>(reflexes->size());
    score.relativeVariance = relativeVariance(score.variance, score.diffVectors);
    saveHistogram(image, angle);
    return score;
}

ReflexVectorPtr VRKTiltAxisRefinement::reflexesFromVolume(float angle, TiltAxisScore& score) {
    StopRelay relay(*this);
    VoxMRCstemProcessing processing;
    processing.registerObserver(&relay);
    std::unique_ptr<VoxMRCData> volume;
    try {
        std::unique_ptr<VoxMRCData> rotated(
            processing.step3_Rotation2TiltAxis(m_evaluatedSeries.get(), true, angle, 0));
        if (relay.canceled()) return nullptr;
        if (!rotated) {
            log("ERRORRRRRRR rotated == 0 \n", VRK::Error);
            return nullptr;
        }
        volume.reset(processing.recoByAngle(rotated.get(), 0.0, 0, true));
    } catch (const std::exception& error) {
        log(error.what(), VRK::Error);
    }
    if (relay.canceled()) return nullptr;
    if (!volume) {
        log("ERRORRRRRRRRRR vol == 0 \n", VRK::Error);
        return nullptr;
    }
    Parameter parameter = evaluationParameter();
    FindReflexes search;
    search.registerObserver(&relay);
    ReflexVectorPtr reflexes(search.findAllReflexes(volume.get(), &parameter, true, nullptr));
    if (!reflexes) return nullptr;
    for (Reflex* reflex : *reflexes)
        if (auto* region = dynamic_cast<ReflexOnGrid*>(reflex)) region->integrate();
    score.compactness = compactnessOf(*reflexes);
    return reflexes;
}

ReflexVectorPtr VRKTiltAxisRefinement::reflexesFromPatterns(float angle) {
    if (!m_spots) {
        log("VRKTiltAxisRefinement::searchTiltAxis2dBruteForce: reflexVector == NULL ", VRK::Error);
        return nullptr;
    }
    ReflexVectorPtr turned(ReflectionTransformation::rotate2DReflectionsInImagePlane(m_spots.get(), angle));
    if (!turned) {
        log("reflexVector == NULL!", VRK::Error);
        return nullptr;
    }
    ReflectionTransformation::transformTo3DPositions(turned.get());
    log(line("reflexVector->size()", ' ', turned->size()));
    ReflexVectorPtr merged(ReflexMerger2d::mergeReflexes(turned.get()));
    log(line("reflexVector->size() after merge", ' ', merged->size()));
    return merged;
}

void VRKTiltAxisRefinement::recordScore(const TiltAxisScore& score) {
    m_scores.push_back(score);
    if (!score.evaluated) return;
    if (score.variance > m_bestVariance) {
        m_bestVariance = score.variance;
        m_bestTiltAxisAngle = score.angle;
    }
    m_largestHistogramMaximum = std::max(m_largestHistogramMaximum, score.maxValue);
}

void VRKTiltAxisRefinement::saveHistogram(const std::vector<int>& image, float angle) {
    const std::string stem =
        (std::filesystem::path(m_folder) / line("diffVectorHistogramm_RotAngle_", angle)).string();
    if (VoxOpenCV::SaveImageWithEqualizeHist(image.data(), kBins, kBins, stem + ".png"))
        log("save JPEG done.");
}

void VRKTiltAxisRefinement::initStat() {
    m_scores.clear();
    m_bestVariance = 0.0;
    m_bestTiltAxisAngle = 0.0;
    m_largestHistogramMaximum = 0;
    m_progress = 0;
    m_stopped = false;
    m_accepted = false;
    m_reflexLimit = kMostReflexes;
}

void VRKTiltAxisRefinement::result_logging() {
    std::ostringstream text;
    text << "angle variance variance2 maxValue compactness reflections differenceVectors";
    for (const TiltAxisScore& s : m_scores)
        text << '\n'
             << s.angle << ' ' << s.variance << ' ' << s.relativeVariance << ' ' << s.maxValue << ' '
             << s.compactness << ' ' << s.reflexes << ' ' << s.diffVectors << (s.evaluated ? "" : " failed");
    log(text.str());
    log(line("best tilt axis angle ", m_bestTiltAxisAngle, " degrees, variance ", m_bestVariance,
             ", largest histogram value ", m_largestHistogramMaximum));
}

void VRKTiltAxisRefinement::finishStatistics(std::string folder, double bestAngle, double bestVariance,
                                             double seconds) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        log(line("VRKTiltAxisRefinement: the folder ", folder,
                 " for the plots could not be made: ", error.message()),
            VRK::Error);
        return;
    }
    for (const Statistic& statistic : kStatistics)
        if (isMeasured(statistic, m_scores)) plot(statistic, m_scores, bestAngle, folder);
    log(line("plots of ", m_scores.size(), " angles in ", folder, ", best variance ", bestVariance, " in ",
             seconds, " seconds"));
}
