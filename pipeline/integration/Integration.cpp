#include "pipeline/integration/Integration.h"

#include <Eigen/LU>

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/integration/BySpacing.h"
#include "pipeline/integration/DetectorModel.h"
#include "pipeline/integration/ResolutionLimit.h"

namespace vrk {
namespace {

/// Spots that tell the geometry stand out by so many standard deviations; fewer when it is known where they
/// are.
constexpr double kStrongSpot = 8;
constexpr double kExpectedSpot = 5;
/// So many reflections refine a geometry.
constexpr std::size_t kFirstReflections = 5000;
constexpr std::size_t kRefinedReflections = 4000;
constexpr std::size_t kFewestStrongSpots = 12;
constexpr int kRefinements = 4;
/// Curves are looked at wider than they are known to be at first.
constexpr double kWideAtFirst = 2.0;
constexpr double kWide = 1.3;
/// The refinement has settled when spots move and curves broaden by less than this.
constexpr double kSettledPixels = 0.03;
constexpr double kSettledWidth = 0.02;
constexpr double kFirstWidth = 0.003;
/// Another kind of curves must lower the misfit to this share of it; a precession is thought of when nothing
/// else fits.
constexpr double kClearlyBetter = 0.7;
constexpr double kPoorCurves = 4;
/// Frames with gaps between them are thought of when the misfit is more than counting statistics leave.
constexpr double kImperfectCurves = 1;
constexpr double kBetterWithGaps = 0.85;
constexpr double kFirstRotationPart = 0.6;
/// A turn by less than this part of the step cannot be told from none.
constexpr double kShortestTurn = 0.15;
/// By so much the squares must be smaller when frames that seem to stand still are taken to turn.
constexpr double kShortTurnEvidence = 8;
/// Gaps that are told are more than this part of a step.
constexpr double kToldGap = 0.03;
/// A gain that is told must explain the noise of the background within this factor: electrons that spread
/// over pixels and noise of the electronics take and add less.
constexpr double kWrongGain = 100;
/// So many saturated reflections are told, as a share of all.
constexpr double kSaturatedShare = 0.01;
/// Counts of a reflection tell where it crossed when they are so many standard deviations.
constexpr double kCentroidSignificance = 3;
/// Less of a curve says too little about all of it.
constexpr double kLeastCoverage = 0.1;

void check(const IntegrationInput& input) {
    const FrameStack& stack = input.frames;
    const SeriesGeometry& geometry = input.geometry;
    const auto refuse = [](bool bad, const char* text) {
        if (bad) throw Failure(std::string("intensities cannot be integrated: ") + text);
    };
    refuse(stack.frames.size() < 3, "the series has fewer than three frames");
    refuse(stack.frames.size() != geometry.frames.size(), "frames and tilts differ in number");
    refuse(std::any_of(stack.frames.begin(), stack.frames.end(),
                       [&](const auto& frame) { return frame.size() != stack.pixels(); }),
           "the frames differ in size");
    refuse(!(geometry.wavelength > 0), "the wavelength is not known; give the high tension (--voltage)");
    refuse(!(geometry.pixelSize > 0), "the pixel size is not known (--pixel-size)");
    refuse(!(std::abs(geometry.reciprocal.determinant()) > 0) || !geometry.reciprocal.allFinite(),
           "the cell has no volume");
    refuse(!std::is_sorted(geometry.frames.begin(), geometry.frames.end(),
                           [](const FramePose& a, const FramePose& b) { return a.tilt < b.tilt; }),
           "the tilts do not ascend");
}

/// The most significant reflections, sorted by their indices.
std::vector<std::array<int, 3>> strongReflections(const SpotPrediction& prediction,
                                                  std::span<const MeasuredSpot> measured) {
    std::vector<std::pair<double, std::array<int, 3>>> found;
    for (const PredictedReflection& reflection : prediction.reflections) {
        double sum = 0, variance = 0;
        for (std::uint32_t n = 0; n < reflection.spotCount; ++n) {
            const MeasuredSpot& spot = measured[reflection.firstSpot + n];
            if (!spot.usable()) continue;
            sum += spot.sum;
            variance += spot.variance;
        }
        if (sum > kExpectedSpot * std::sqrt(variance))
            found.push_back({sum / std::sqrt(variance), {reflection.h, reflection.k, reflection.l}});
    }
    std::sort(found.begin(), found.end(), std::greater<>());
    found.resize(std::min(found.size(), kRefinedReflections));
    std::vector<std::array<int, 3>> strong;
    strong.reserve(found.size());
    for (const auto& [significance, hkl] : found)
        strong.push_back(hkl);
    std::sort(strong.begin(), strong.end());
    return strong;
}

/// Which reflections to measure for the refinement: the strong ones, or an even choice when none are known
/// yet.
std::vector<std::uint8_t> wantedReflections(const SpotPrediction& prediction,
                                            const std::vector<std::array<int, 3>>& strong) {
    const std::size_t count = prediction.reflections.size();
    std::vector<std::uint8_t> wanted(count, 0);
    const std::size_t step = count / kFirstReflections + 1;
    for (std::size_t i = 0; i < count; ++i) {
        const PredictedReflection& r = prediction.reflections[i];
        const bool take = strong.empty() ? i % step == 0
                                         : std::binary_search(strong.begin(), strong.end(),
                                                              std::array<int, 3>{r.h, r.k, r.l});
        wanted[i] = take ? 1 : 0;
    }
    return wanted;
}

/// A gain in another unit makes every uncertainty wrong.
void checkGain(double told, double seen) {
    if (told < kWrongGain * seen && seen < kWrongGain * told) return;
    throw Failure(
        formatted("no intensities: the background scatters as if an electron made %.3g counts, which no "
                  "gain of %g explains; leave --gain out or correct it",
                  seen, told));
}

std::string inWords(RotationMode mode, double rotation) {
    std::string text = nameOf(mode);
    if (mode == RotationMode::Continuous) text += formatted(" over %.3g degrees", rotation / kDegree);
    return text;
}

class Integrator {
public:
    Integrator(IntegrationInput input, const IntegrationOptions& options);
    IntegrationResult run();

private:
    void checkpoint() const {
        if (m_options.checkpoint) m_options.checkpoint();
    }
    PredictionLimits limits(double dMin) const;
    double edgeSpacing() const;
    double leastDistance() const;
    double firstSearch() const;
    SpotExtent apartExtent(double width) const;
    void prepareDetector();
    void refine();
    void chooseMode(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                    std::span<const SpotCentroid> centroids);
    GeometryFit fittedCurves(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                             std::span<const SpotCentroid> centroids) const;
    double fittedMisfit(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                        std::span<const SpotCentroid> centroids);
    void setRotation(const StatedMode& mode);
    bool isStated(RotationMode mode) const;
    void tellContradiction(double misfit);
    double bestPrecession(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured);
    CurveMisfit fullMisfit(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                           std::span<const SpotCentroid> centroids, bool mosaic) const;
    bool mayTurn(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured) const;
    void lookForShortTurns(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                           std::span<const SpotCentroid> centroids);
    double bestRotation(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                        std::span<const SpotCentroid> centroids);
    double improveRotation(SeriesGeometry geometry, const SpotPrediction& prediction,
                           std::span<const MeasuredSpot> measured, double firstStep);
    double settle(const GeometryFit& fit, const SpotPrediction& prediction);
    void measure(double dMin);
    LaueRotations likelyRotations() const;
    void assemble();
    void tellGaps();
    void tellSaturated();
    IntegratedReflection assembled(std::uint32_t number, std::span<const CurveFit> sums) const;

    IntegrationInput m_input;
    const IntegrationOptions& m_options;
    IntegrationResult m_result;
    SeriesGeometry m_geometry;
    RockingModel m_rocking;
    NoiseModel m_noise;
    double m_spotWidth = 1.5;              ///< standard deviation, pixels; the usual one until it is known
    std::optional<double> m_rotationPart;  ///< of its step that a frame turns, where the curves show gaps
    std::vector<CurveFit> m_sums;
};

Integrator::Integrator(IntegrationInput input, const IntegrationOptions& options)
    : m_input(std::move(input)), m_options(options), m_geometry(m_input.geometry) {
    m_geometry.reciprocal = tiedVectors(m_geometry.reciprocal, m_geometry.ties);
    m_rocking.width = kFirstWidth;
    m_rocking.mode = options.mode.value_or(RotationMode::Continuous);
    m_rocking.precession = options.precession;
    m_result.start = m_input.geometry;
    if (options.refine) m_result.fit.terms = options.terms;
    const std::optional<StatedMode>& stated = m_input.stated;
    if (!stated || stated->mode != options.mode) return;
    setRotation(*stated);
    if (!(m_rocking.precession > 0)) m_rocking.precession = stated->precession;
}

PredictionLimits Integrator::limits(double dMin) const {
    PredictionLimits limits;
    limits.dMin = dMin;
    limits.centring = m_input.centring;
    limits.width = m_input.frames.width;
    limits.height = m_input.frames.height;
    // Nearer to the beam its saturated core lies in the ring of the background.
    const int saturation = m_input.frames.saturation;
    limits.beamRadius = m_result.extent.outer;
    if (saturation > 0)
        limits.beamRadius = std::max(
            limits.beamRadius, m_result.shape.radiusAbove(0.5 * saturation) + m_result.extent.radius + 1);
    return limits;
}

/// The finest spacing that the corners of the frames show.
double Integrator::edgeSpacing() const {
    double farthest = 0;
    for (const FramePose& pose : m_geometry.frames) {
        const double x = std::max(pose.centreX, m_input.frames.width - 1 - pose.centreX);
        const double y = std::max(pose.centreY, m_input.frames.height - 1 - pose.centreY);
        farthest = std::max(farthest, std::hypot(x, y));
    }
    return 1 / (farthest * m_geometry.pixelSize);
}

/// The distance of neighbouring spots, pixels.
double Integrator::leastDistance() const {
    return m_geometry.reciprocal.colwise().norm().minCoeff() / m_geometry.pixelSize;
}

/// How far a spot is looked for at first: less than halfway to its neighbours.
double Integrator::firstSearch() const {
    return std::clamp(0.3 * leastDistance(), 1.5, 6.0);
}

/// Of spots of a width, but no wider than that the discs of neighbours keep apart: what shares its disc is
/// placed nowhere and tells nothing of its curve. On a zone axis that would be all of them.
SpotExtent Integrator::apartExtent(double width) const {
    return SpotExtent::of(std::min(width, 0.12 * leastDistance()));
}

void Integrator::prepareDetector() {
    FrameStack& stack = m_input.frames;
    if (stack.saturation == 0) stack.saturation = saturationOf(stack);
    m_result.shape = RadialShape(stack, m_geometry.frames);
    const std::vector<std::uint8_t> found = deadPixels(stack, m_geometry.frames, m_result.shape);
    stack.dead.resize(found.empty() ? stack.dead.size() : found.size(), 0);
    for (std::size_t i = 0; i < found.size(); ++i)
        stack.dead[i] |= found[i];
    m_result.saturation = stack.saturation;
    m_result.deadPixels = static_cast<std::size_t>(
        std::count_if(stack.dead.begin(), stack.dead.end(), [](std::uint8_t value) { return value != 0; }));
    m_noise.gain = m_options.gain.value_or(roughGain(stack));
    if (m_options.gain) checkGain(*m_options.gain, roughGain(stack));
    m_result.extent = apartExtent(m_spotWidth);
}

/// Takes over what a refinement found. Returns the largest movement of a spot, pixels.
double Integrator::settle(const GeometryFit& fit, const SpotPrediction& prediction) {
    double farthest = 0;
    for (const PredictedSpot& spot : prediction.spots) {
        if (spot.share < 0.1F) continue;
        const PredictedReflection& r = prediction.reflections[spot.reflection];
        const FrameView view(fit.geometry, fit.geometry.frames[spot.frame]);
        const SpotPlace place = view.place(fit.geometry.reciprocal * Eigen::Vector3d(r.h, r.k, r.l));
        farthest = std::max(farthest, std::hypot(place.x - spot.x, place.y - spot.y));
    }
    m_geometry = fit.geometry;
    m_rocking = fit.rocking;
    return farthest;
}

/// Frames that do not turn all the time turn by less than the distance of their tilts.
void Integrator::setRotation(const StatedMode& mode) {
    if (mode.mode != RotationMode::Continuous || !(mode.rotation > 0)) return;
    for (FramePose& pose : m_geometry.frames)
        pose.rotation = mode.rotation;
}

/// Whether the statement is that of frames without gaps.
bool Integrator::isStated(RotationMode mode) const {
    constexpr double kSame = 0.02;
    const std::optional<StatedMode>& stated = m_input.stated;
    return stated && stated->mode == mode &&
           (mode != RotationMode::Continuous ||
            std::abs(stated->rotation / m_input.geometry.frames.front().rotation - 1) < kSame);
}

/// Tries what the frames may have done, what they are said to have done first, and keeps what fits the curves
/// best. Of a mode that was chosen only the gaps are left to find.
void Integrator::chooseMode(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                            std::span<const SpotCentroid> centroids) {
    const SeriesGeometry start = m_geometry;
    const RockingModel first = m_rocking;
    double least = std::numeric_limits<double>::infinity();
    const auto isAllowed = [this](RotationMode mode) { return m_options.mode.value_or(mode) == mode; };
    const auto attempt = [&](const StatedMode& mode, ModeSource source, bool gaps = false) {
        // The simplest explanation that is not clearly worse, and a statement unless it is.
        const double better = gaps ? kBetterWithGaps : kClearlyBetter;
        const double limit = std::isfinite(least) ? better * least : least;
        const SeriesGeometry geometryBefore = m_geometry;
        const RockingModel before = m_rocking;
        m_geometry = start;
        setRotation(mode);
        // The width of other curves is where that of precessed ones is looked for.
        if (mode.mode != RotationMode::Precession) m_rocking = first;
        m_rocking.mode = mode.mode;
        m_rocking.precession = mode.precession;
        const double misfit = mode.mode == RotationMode::Precession ? bestPrecession(prediction, measured)
                              : gaps ? bestRotation(prediction, measured, centroids)
                                     : fittedMisfit(prediction, measured, centroids);
        m_result.modeMisfits.emplace_back(mode.mode, misfit);
        if (misfit <= limit) {
            least = misfit;
            if (!m_options.mode) m_result.modeSource = source;
            return;
        }
        m_geometry = geometryBefore;
        m_rocking = before;
        if (gaps) m_rotationPart.reset();
    };
    const std::optional<StatedMode>& stated = m_input.stated;
    if (stated && isAllowed(stated->mode)) attempt(*stated, ModeSource::Header);
    for (const RotationMode mode : {RotationMode::Continuous, RotationMode::Stepwise})
        if (isAllowed(mode) && !isStated(mode)) attempt({mode}, ModeSource::Curves);
    if (least > kImperfectCurves) attempt({RotationMode::Continuous}, ModeSource::Curves, true);
    if (least > kPoorCurves && isAllowed(RotationMode::Precession))
        attempt({RotationMode::Precession}, ModeSource::Curves);
    if (m_rocking.mode != RotationMode::Continuous) m_rotationPart.reset();
    if (stated && m_result.modeSource == ModeSource::Curves) tellContradiction(least);
}

/// Width and geometry that suit the curves as they are taken now.
GeometryFit Integrator::fittedCurves(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                                     std::span<const SpotCentroid> centroids) const {
    GeometryOptions options;
    options.optional = options.tilts = false;
    return refineGeometry(m_geometry, m_rocking, prediction, measured, centroids, options);
}

/// Of the curves, once their width is refined.
double Integrator::fittedMisfit(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                                std::span<const SpotCentroid> centroids) {
    const GeometryFit fit = fittedCurves(prediction, measured, centroids);
    m_rocking = fit.rocking;
    return curveMisfit(fit.geometry, fit.rocking, prediction, measured).mean;
}

/// Of all strong curves, in a geometry that is refined for the model, and with the mosaicity that fits best,
/// where it is wanted.
CurveMisfit Integrator::fullMisfit(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                                   std::span<const SpotCentroid> centroids, bool mosaic) const {
    const GeometryFit fit = fittedCurves(prediction, measured, centroids);
    const auto misfitOf = [&](const RockingModel& rocking) {
        return curveMisfit(fit.geometry, rocking, prediction, measured, prediction.reflections.size());
    };
    CurveMisfit best = misfitOf(fit.rocking);
    RockingModel found = fit.rocking;
    for (double part = 0.03; mosaic && part < 0.13; part += 0.03) {
        const double before = best.mean;
        RockingModel trial = found;
        trial.mosaicity = std::hypot(fit.rocking.mosaicity, part * m_geometry.frames.front().rotation);
        for (int i = 0; i < 8; ++i, trial.width *= 0.994) {
            const CurveMisfit misfit = misfitOf(trial);
            if (misfit.mean >= best.mean) continue;
            best = misfit;
            found = trial;
        }
        if (best.mean == before) break;
    }
    return best;
}

/// Whether some curves are hardly worse for a turn by a fifth of the step: those of frames that stand still
/// are.
bool Integrator::mayTurn(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured) const {
    SeriesGeometry turning = m_geometry;
    for (FramePose& pose : turning.frames)
        pose.rotation *= 0.2;
    const double still = 0.01 + curveMisfit(m_geometry, m_rocking, prediction, measured).mean;
    RockingModel trial = m_rocking;
    trial.mode = RotationMode::Continuous;
    for (int i = 0; i < 6; ++i, trial.width *= 0.99)
        if (curveMisfit(turning, trial, prediction, measured).mean < still) return true;
    return false;
}

/// Frames that turn by a small part of a step have nearly the curves of still ones, and yet other shares: all
/// curves together tell.
void Integrator::lookForShortTurns(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                                   std::span<const SpotCentroid> centroids) {
    const SeriesGeometry geometry = m_geometry;
    const RockingModel still = m_rocking;
    // A mosaic crystal has broader curves, too.
    const CurveMisfit without = fullMisfit(prediction, measured, centroids, true);
    m_rocking.mode = RotationMode::Continuous;
    bestRotation(prediction, measured, centroids);
    const CurveMisfit with = fullMisfit(prediction, measured, centroids, false);
    const double gain = (without.mean - with.mean) * with.freedom / std::max(with.mean, 1.0);
    if (*m_rotationPart >= kShortestTurn && gain > kShortTurnEvidence) return;
    m_geometry = geometry;
    m_rocking = still;
    m_rotationPart.reset();
}

void Integrator::tellContradiction(double misfit) {
    const StatedMode& stated = *m_input.stated;
    m_result.remarks.push_back(formatted(
        "the series states that its frames are %s, the rocking curves say %s (misfit %.1f instead of "
        "%.1f); the curves are believed, --mode decides",
        inWords(stated.mode, stated.rotation).c_str(),
        inWords(m_rocking.mode, m_geometry.frames.front().rotation).c_str(), misfit,
        m_result.modeMisfits.front().second));
}

/// The part of its step that a frame turns, and the width with it, that fit the curves best: cameras that
/// read out between frames leave gaps that hardly a header states. \returns the misfit
double Integrator::bestRotation(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured,
                                std::span<const SpotCentroid> centroids) {
    m_rotationPart = kFirstRotationPart;
    double misfit = 0;
    for (const double step : {0.16, 0.04}) {
        setRotation({RotationMode::Continuous, *m_rotationPart * m_input.geometry.frames.front().rotation});
        const GeometryFit fit = fittedCurves(prediction, measured, centroids);
        m_rocking = fit.rocking;
        misfit = improveRotation(fit.geometry, prediction, measured, step);
    }
    return misfit;
}

/// Looks around the part and the width that are known for better ones, in steps down to a quarter of the
/// first.
double Integrator::improveRotation(SeriesGeometry geometry, const SpotPrediction& prediction,
                                   std::span<const MeasuredSpot> measured, double firstStep) {
    double found = std::numeric_limits<double>::infinity();
    double part = *m_rotationPart;
    const auto attempt = [&](double trialPart, double width) {
        RockingModel trial = m_rocking;
        trial.width = width;
        for (FramePose& pose : geometry.frames)
            pose.rotation = trialPart * m_input.geometry.frames.front().rotation;
        const double misfit = curveMisfit(geometry, trial, prediction, measured).mean;
        if (misfit >= found) return;
        found = misfit;
        part = trialPart;
        m_rocking = trial;
    };
    for (double step = firstStep; step > 0.2 * firstStep; step *= 0.5)
        for (int round = 0; round < 4; ++round) {
            const double middle = part;
            const double width = m_rocking.width;
            for (const double trial : {middle, middle - step, middle + step})
                for (const double factor : {1.0, 1 - step, 1 + step})
                    attempt(std::clamp(trial, 0.02, 1.0), factor * width);
            if (part == middle) break;
        }
    m_rotationPart = part;
    setRotation({RotationMode::Continuous, part * m_input.geometry.frames.front().rotation});
    return found;
}

/// The precession, and the width with it, that fits the curves best; near the angle that is stated, where one
/// is. The middle of a curve does not depend on it, so the geometry stays. \returns the misfit
double Integrator::bestPrecession(const SpotPrediction& prediction, std::span<const MeasuredSpot> measured) {
    const RockingModel first = m_rocking;
    double found = std::numeric_limits<double>::infinity();
    const auto attempt = [&](double precession, double width) {
        RockingModel trial = first;
        trial.mode = RotationMode::Precession;
        trial.precession = precession;
        trial.width = width;
        const double misfit = curveMisfit(m_geometry, trial, prediction, measured).mean;
        if (misfit > found) return;
        found = misfit;
        m_rocking = trial;
    };
    const auto attemptWidths = [&](double precession) {
        for (const double factor : {0.35, 0.6, 1.0})
            attempt(precession, factor * first.width);
    };
    if (first.precession > 0)
        attemptWidths(first.precession);
    else
        for (const double degrees : {0.4, 0.55, 0.75, 1.0, 1.3, 1.7, 2.2})
            attemptWidths(degrees * kDegree);
    for (const double fineness : {0.1, 0.04, 0.015}) {
        const RockingModel middle = m_rocking;
        for (const double angle : {1 - fineness, 1.0, 1 + fineness})
            for (const double factor : {1 - 2 * fineness, 1.0, 1 + 2 * fineness})
                attempt(angle * middle.precession, factor * middle.width);
    }
    return found;
}

void Integrator::refine() {
    const double dMin = std::max(m_options.dMin.value_or(edgeSpacing()),
                                 m_input.resolution > 0 ? 0.98 * m_input.resolution : 0.0);
    double search = firstSearch();
    std::vector<std::array<int, 3>> strong;
    for (int round = 0; round < kRefinements; ++round) {
        checkpoint();
        RockingModel wide = m_rocking;
        wide.width *= round == 0 ? kWideAtFirst : kWide;
        const SpotPrediction prediction = predictSpots(m_geometry, wide, limits(dMin));
        if (m_options.dMin && prediction.reflections.size() < kFewestStrongSpots)
            throw Failure(
                formatted("no intensities: only %zu reflections of the cell are recorded to %g Angstrom; "
                          "choose a smaller --d-min",
                          prediction.reflections.size(), *m_options.dMin),
                FailureKind::NothingFound);
        const SpotMeasurement measurement(m_input.frames, m_geometry, m_result.shape, m_noise,
                                          m_result.extent);
        const std::vector<std::uint8_t> wanted = wantedReflections(prediction, strong);
        const std::vector<MeasuredSpot> measured = measurement.sums(prediction, wanted);
        const std::vector<SpotCentroid> centroids =
            measurement.centroids(prediction, measured, round == 0 ? kStrongSpot : kExpectedSpot, search);
        strong = strongReflections(prediction, measured);
        if (centroids.size() < kFewestStrongSpots) {
            if (round > 0) break;
            throw Failure(
                "no intensities: hardly a spot stands out from the background where the cell and "
                "the axis put the reflections; check the tilt axis and the pattern centres",
                FailureKind::NothingFound);
        }
        std::vector<double> widths;
        for (const SpotCentroid& centroid : centroids)
            if (centroid.width > 0) widths.push_back(centroid.width);
        if (widths.size() >= kFewestStrongSpots)
            m_spotWidth = std::clamp(medianOf(std::move(widths)), 0.4, 10.0);
        m_result.extent = apartExtent(m_spotWidth);
        // Around discs that are cut the tails of the spots are no noise.
        const bool whole = m_result.extent.sigma >= m_spotWidth;
        if (!m_options.gain && whole) m_noise = noiseOfRings(measured, m_noise);
        if (round == 1 && (!m_options.mode || m_options.mode == RotationMode::Continuous))
            chooseMode(prediction, measured, centroids);
        if (round == 1 && m_options.mode == RotationMode::Precession && !(m_options.precession > 0))
            bestPrecession(prediction, measured);

        const bool seemsStill =
            m_rocking.mode == RotationMode::Stepwise && !m_options.mode && !m_input.stated;
        if (round > 0 && seemsStill && mayTurn(prediction, measured))
            lookForShortTurns(prediction, measured, centroids);
        if (round > 1 && m_rotationPart) improveRotation(m_geometry, prediction, measured, 0.04);

        GeometryOptions options;
        options.terms = m_result.fit.terms;
        options.kept = m_options.keptTerms;
        options.optional = round > 0 && m_options.refine;
        options.tilts = round > 1 && m_options.refine;
        const double widthBefore = m_rocking.width;
        m_result.fit = refineGeometry(m_geometry, m_rocking, prediction, measured, centroids, options);
        m_result.places.clear();
        for (const SpotCentroid& centroid : centroids)
            m_result.places.push_back({prediction.spots[centroid.spot].frame, centroid.x, centroid.y});
        const double farthest = settle(m_result.fit, prediction);
        search = std::min(std::max(4 * m_result.fit.residual, 2.0), search);
        if (round > 1 && farthest < kSettledPixels &&
            std::abs(m_rocking.width / widthBefore - 1) < kSettledWidth)
            break;
    }
}

/// Counts and curves of all reflections up to a spacing.
void Integrator::measure(double dMin) {
    checkpoint();
    FrameStack& stack = m_input.frames;
    m_result.extent = SpotExtent::of(m_spotWidth);
    m_result.prediction = predictSpots(m_geometry, m_rocking, limits(dMin));
    const SpotPrediction& prediction = m_result.prediction;
    const SpotMeasurement measurement(stack, m_geometry, m_result.shape, m_noise, m_result.extent);
    m_result.measured = measurement.sums(prediction);
    if (!m_options.gain) m_noise = noiseOfRings(m_result.measured, m_noise);
    checkpoint();
    const CurveErrors errors{m_result.fit.curveError, m_result.fit.tiltSigma};
    m_sums =
        fitCurves(prediction, m_geometry, m_rocking, frameCounts(m_result.measured), m_noise.gain, errors);
    const ProfileSet profiles = learnProfiles(stack, m_geometry, m_result.shape, m_noise, m_result.extent,
                                              prediction, m_result.measured);
    m_result.profileSpots = profiles.spots();
    const LaueRotations mates = {IndexRotation()};
    std::vector<float> expected = expectedCounts(prediction, m_sums, mates);
    // Overlapped spots have no sums; the second round knows what to expect of them, and of equivalents.
    for (int round = 0; round < 2; ++round) {
        checkpoint();
        m_result.fitted = fitProfiles(stack, m_geometry, m_result.shape, m_noise, profiles, prediction,
                                      m_result.measured, expected);
        m_result.curves =
            fitCurves(prediction, m_geometry, m_rocking, frameCounts(m_result.fitted), 0.0, errors);
        if (round == 0) expected = expectedCounts(prediction, m_result.curves, likelyRotations());
    }
}

/// Of the Laue group that the intensities show; which one it is is decided when they are scaled.
LaueRotations Integrator::likelyRotations() const {
    std::vector<Observation> observations;
    for (std::size_t r = 0; r < m_result.curves.size(); ++r) {
        const CurveFit& curve = m_result.curves[r];
        if (!(curve.sigma > 0)) continue;
        const PredictedReflection& one = m_result.prediction.reflections[r];
        Observation observation;
        observation.hkl = {one.h, one.k, one.l};
        observation.intensity = curve.intensity;
        observation.sigma = curve.sigma;
        observation.spacing = 1 / one.length;
        observations.push_back(observation);
    }
    if (observations.empty()) return {IndexRotation()};
    return chooseLaueGroup(observations, m_geometry.reciprocal, m_input.centring).best().rotations;
}

IntegratedReflection Integrator::assembled(std::uint32_t number, std::span<const CurveFit> sums) const {
    const PredictedReflection& predicted = m_result.prediction.reflections[number];
    const CurveFit& curve = m_result.curves[number];
    IntegratedReflection result;
    result.h = predicted.h;
    result.k = predicted.k;
    result.l = predicted.l;
    result.predicted = number;
    result.intensity = curve.intensity;
    result.sigma = curve.sigma;
    result.sumIntensity = sums[number].intensity;
    result.sumSigma = sums[number].sigma;
    result.spacing = 1 / predicted.length;
    result.lorentz = predicted.lorentz;
    result.coverage = std::min(curve.coverage, 1.0);
    result.curveChi = curve.frames > 1 ? std::sqrt(curve.chiSquare / (curve.frames - 1)) : 0;
    result.tilt = predicted.tilt / kDegree;
    if (predicted.blind) result.flags |= kReflectionBlind;
    if (!(curve.sigma > 0) || curve.coverage < kLeastCoverage) result.flags |= kReflectionUnfitted;
    if (curve.coverage < kCutCoverage) result.flags |= kReflectionCut;

    const auto& frames = m_geometry.frames;
    const auto after = std::lower_bound(frames.begin(), frames.end(), predicted.tilt,
                                        [](const FramePose& f, double t) { return f.tilt < t; });
    const auto next =
        std::clamp<std::ptrdiff_t>(after - frames.begin(), 1, static_cast<std::ptrdiff_t>(frames.size()) - 1);
    const FramePose& low = frames[static_cast<std::size_t>(next - 1)];
    const FramePose& high = frames[static_cast<std::size_t>(next)];
    const double part = std::clamp((predicted.tilt - low.tilt) / (high.tilt - low.tilt), -0.5, 1.5);
    result.frame = static_cast<double>(next - 1) + part;
    FramePose crossing = low;
    crossing.tilt = predicted.tilt;
    crossing.centreX += part * (high.centreX - low.centreX);
    crossing.centreY += part * (high.centreY - low.centreY);
    const SpotPlace place = FrameView(m_geometry, crossing).place(predicted.g);
    result.x = place.x;
    result.y = place.y;

    double sum = 0, moment = 0, noise = 0;
    for (std::uint32_t n = 0; n < predicted.spotCount; ++n) {
        const std::uint32_t spot = predicted.firstSpot + n;
        const std::uint8_t flags = m_result.measured[spot].flags;
        if (flags & kSpotSaturated) result.flags |= kReflectionSaturated;
        if (flags & (kSpotMasked | kSpotAtEdge)) result.flags |= kReflectionMasked;
        if (flags & kSpotOverlapped) result.flags |= kReflectionOverlapped;
        const FittedSpot& fitted = m_result.fitted[spot];
        sum += fitted.counts;
        moment += fitted.counts * frames[m_result.prediction.spots[spot].frame].tilt;
        noise += fitted.variance;
    }
    result.observedTilt = result.tilt;
    // The centroid of noise lies anywhere.
    if (!(noise > 0) || sum <= kCentroidSignificance * std::sqrt(noise)) return result;
    const double mean = moment / sum;
    double variance = 0;
    for (std::uint32_t n = 0; n < predicted.spotCount; ++n) {
        const std::uint32_t spot = predicted.firstSpot + n;
        const FramePose& pose = frames[m_result.prediction.spots[spot].frame];
        const double offset = pose.tilt - mean;
        // Within a frame the counts may lie anywhere.
        const double within = m_rocking.mode == RotationMode::Continuous ? pose.rotation : 0;
        variance += m_result.fitted[spot].variance * offset * offset +
                    std::pow(m_result.fitted[spot].counts * within, 2) / 12;
    }
    result.observedTilt = mean / kDegree;
    result.observedTiltSigma = std::sqrt(variance) / sum / kDegree;
    return result;
}

void Integrator::assemble() {
    m_result.reflections.clear();
    for (std::uint32_t i = 0; i < m_result.prediction.reflections.size(); ++i)
        // With all equivalents of the reflection that is the limit.
        if (comparableSpacing(1 / m_result.prediction.reflections[i].length) >=
            comparableSpacing(m_result.dMin))
            m_result.reflections.push_back(assembled(i, m_sums));
    std::sort(m_result.reflections.begin(), m_result.reflections.end(),
              [](const IntegratedReflection& a, const IntegratedReflection& b) {
                  return std::tie(a.h, a.k, a.l) < std::tie(b.h, b.k, b.l);
              });
}

void Integrator::tellGaps() {
    if (!m_rotationPart || *m_rotationPart > 1 - kToldGap) return;
    const double step = m_input.geometry.frames.front().rotation / kDegree;
    m_result.remarks.push_back(
        formatted("by the rocking curves frames turn by %.2g of every %.3g degrees: nothing was recorded "
                  "between them, and reflections that cross there have larger uncertainties",
                  *m_rotationPart * step, step));
}

void Integrator::tellSaturated() {
    const auto count = std::count_if(m_result.reflections.begin(), m_result.reflections.end(),
                                     [](const auto& r) { return (r.flags & kReflectionSaturated) != 0; });
    const auto all = static_cast<double>(m_result.reflections.size());
    if (static_cast<double>(count) > kSaturatedShare * all)
        m_result.remarks.push_back(formatted(
            "%td of %zu reflections have pixels at the saturation of %d counts and are left out; the "
            "strongest are among them: expose less",
            count, m_result.reflections.size(), m_result.saturation));
}

IntegrationResult Integrator::run() {
    check(m_input);
    prepareDetector();
    refine();
    const double edge = edgeSpacing();
    measure(m_options.dMin.value_or(edge));
    m_result.dMin = m_options.dMin.value_or(edge);
    m_result.noise = m_noise;
    assemble();
    if (!m_options.dMin) {
        const double limit = resolutionOf(m_result.reflections);
        m_result.resolutionFound = limit > m_result.dMin;
        m_result.dMin = std::max(limit, m_result.dMin);
        assemble();
    }
    tellGaps();
    tellSaturated();
    return std::move(m_result);
}

}  // namespace

IntegrationResult integrate(IntegrationInput input, const IntegrationOptions& options) {
    return Integrator(std::move(input), options).run();
}

}  // namespace vrk
