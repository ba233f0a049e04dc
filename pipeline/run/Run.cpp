#include "pipeline/run/Run.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/base/Failure.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/Workers.h"
#include "pipeline/run/MemoryNeed.h"
#include "pipeline/run/RunSummary.h"
#include "pipeline/run/VolumeBound.h"

namespace vrk {
namespace {

/// The volume is built again when the refined axis is off by more than this, degrees: reflections break up
/// then, and those far out are missed.
constexpr double kAxisMoved = 0.25;
constexpr int kMostRebuilds = 3;

/// The result of a function; what it took is added to the cost.
template <typename Function>
auto timed(StageCost& cost, Function function) {
    const auto start = std::chrono::steady_clock::now();
    auto result = function();
    cost += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    cost.memory = peakMemory();
    cost.resident = static_cast<double>(residentMemory()) / (1 << 20);
    ++cost.times;
    return result;
}

/// Gives back to the system what earlier stages freed: the volume is as large as all else together.
void releaseFreedMemory() {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

/// What one direction of the axis gives.
struct Attempt {
    TiltAxis axis;
    ReciprocalVolume volume;
    LatticeChoice lattice;
    Indexed indexed;
    Crystals crystals = {};

    /// Two volumes at a time are too many: one is made of the frames again in a fraction of the time of an
    /// attempt.
    void giveUpVolume() { volume.voxels.reset(); }
};

/// One run after another over the same centred frames.
class Attempts {
public:
    Attempts(const CentredSeries& series, const RunOptions& options, const RunStages& stages,
             RunSeconds& seconds, Session& session, RunRemains& remains)
        : m_series(series),
          m_options(options),
          m_stages(stages),
          m_seconds(seconds),
          m_session(session),
          m_remains(remains) {}

    /// Throws Failure when nothing is found.
    Attempt at(const TiltAxis& axis) {
        m_remains.volume.reset();
        m_remains.level.reset();
        ReciprocalVolume volume = volumeAt(axis);
        std::vector<Level> levels;
        try {
            part(5, "find reflections", 6);
            levels = timed(m_seconds.search,
                           [&] { return m_stages.searchLevels(volume, m_options.search, m_session); });
            part(6, "search the cell");
            LatticeChoice lattice = timed(m_seconds.cell, [&] {
                return m_stages.findLattice(levels, volume, m_options.cell, m_session);
            });
            keepForFailure(levels);
            part(7, "index and refine");
            Indexed indexed = timed(m_seconds.index, [&] {
                return m_stages.indexReflections(std::move(levels), lattice, volume, axis, m_session);
            });
            m_remains.level.reset();
            return {axis, std::move(volume), std::move(lattice), std::move(indexed)};
        } catch (const Failure&) {
            if (!m_remains.level) keepForFailure(levels);
            m_remains.volume = std::move(volume);
            throw;
        }
    }

    /// The same; nothing, and the failure kept, where nothing is found.
    std::optional<Attempt> tryAt(const TiltAxis& axis) {
        try {
            return at(axis);
        } catch (const Failure& failure) {
            if (failure.kind() != FailureKind::NothingFound) throw;
            if (!m_failure) m_failure = failure;
            return std::nullopt;
        }
    }

    /// Makes the volume of an attempt again that gave it up for another one, and forgets that of a failure.
    void restoreVolume(Attempt& attempt) {
        m_remains.volume.reset();
        if (!attempt.volume.voxels) attempt.volume.voxels = volumeAt(attempt.axis).voxels;
    }

    const Failure& firstFailure() const { return *m_failure; }

private:
    void part(int number, const char* name, int stages = 1) {
        m_session.beginPart(number, kRunParts, name, stages);
    }

    /// The list of the highest threshold that has enough reflections for a cell.
    void keepForFailure(const std::vector<Level>& levels) {
        constexpr std::size_t kEnough = 200;
        for (const Level& level : levels)
            if (!m_remains.level || level.reflections.size() >= kEnough) m_remains.level = level;
    }

    ReciprocalVolume volumeAt(const TiltAxis& axis) {
        // The pipeline's own needs no rotated frames.
        using Function = ReciprocalVolume (*)(const CentredSeries&, Session&);
        const Function* function = m_stages.reconstruct.target<Function>();
        const bool isOwn = function && *function == vrk::reconstruct;
        releaseFreedMemory();
        part(4, "reconstruct", axis.angle != 0.0 && !isOwn ? 2 : 1);
        if (isOwn)
            return timed(m_seconds.reconstruct, [&] { return reconstructTurned(m_series, axis, m_session); });
        std::optional<CentredSeries> rotated;
        if (axis.angle != 0.0 || !m_series.facts.distortion.isNone())
            rotated = timed(m_seconds.preprocess, [&] { return rotate(m_series, axis, m_session); });
        return timed(m_seconds.reconstruct,
                     [&] { return m_stages.reconstruct(rotated ? *rotated : m_series, m_session); });
    }

    const CentredSeries& m_series;
    const RunOptions& m_options;
    const RunStages& m_stages;
    RunSeconds& m_seconds;
    Session& m_session;
    RunRemains& m_remains;
    std::optional<Failure> m_failure;
};

double turnOf(const Indexed& indexed) {
    return indexed.instrument.valid
               ? indexed.instrument.model[InstrumentTerm::AxisTurn] * 180.0 / std::numbers::pi
               : 0.0;
}

/// How much of the volume an answer explains.
double meritOf(const Attempt& attempt) {
    const RefinedLattice& lattice = attempt.indexed.refined.lattice;
    return lattice.indexed * lattice.fraction() * lattice.fraction();
}

/// Whether an answer is of stronger reflections alone, of which as large a part lies closer to the nodes.
/// Numbers of reflections at different thresholds cannot be compared.
bool isCleanerAbove(const Attempt& next, const Attempt& best) {
    const RefinedLattice& one = next.indexed.refined.lattice;
    const RefinedLattice& other = best.indexed.refined.lattice;
    return next.indexed.level.threshold > best.indexed.level.threshold &&
           one.fraction() >= other.fraction() && one.rms < other.rms;
}

/// Whether a volume about a refined axis gives the better answer. A wrong axis breaks reflections into
/// pieces, which count more than once but lie far from their nodes.
bool isBetter(const Attempt& next, const Attempt& best) {
    constexpr double kMuchWorse = 0.9;
    constexpr double kAboutAsMany = 0.85;
    constexpr double kMuchCloser = 0.7;
    if (meritOf(next) >= kMuchWorse * meritOf(best) || isCleanerAbove(next, best)) return true;
    return next.indexed.instrument.valid && best.indexed.instrument.valid &&
           meritOf(next) > kAboutAsMany * meritOf(best) &&
           next.indexed.instrument.rmsBefore < kMuchCloser * best.indexed.instrument.rmsBefore;
}

/// Follows the axis that the reflections ask for unless that explains fewer of them by far.
void followAxis(Attempts& attempts, Attempt& best) {
    for (int rebuild = 0; rebuild < kMostRebuilds; ++rebuild) {
        const double turn = turnOf(best.indexed);
        if (std::abs(turn) < kAxisMoved) break;
        TiltAxis axis = best.axis;
        if (!axis.stated && axis.source != "assumed" && axis.source != "search") axis.stated = axis.angle;
        axis.angle = std::remainder(axis.angle + turn, 360.0);
        axis.source = "refined";
        best.giveUpVolume();
        std::optional<Attempt> next = attempts.tryAt(axis);
        if (!next || !isBetter(*next, best)) break;
        best = std::move(*next);
    }
    attempts.restoreVolume(best);
}

void tellMovedAxis(const TiltAxis& axis, Session& session) {
    if (!axis.stated) return;
    std::ostringstream text;
    text.precision(4);
    text << "the tilt axis was given as " << *axis.stated << " degrees; the reflections say " << axis.angle
         << ", which was used";
    session.warn(text.str());
}

/// The attempt on patterns whose centres the spots put right, for which the best one may give up its volume;
/// nothing where no pattern needs it, or nothing gets better.
std::optional<Attempt> withRefinedCentres(const CentredSeries& series, Attempt& best,
                                          const RunOptions& options, const RunStages& stages,
                                          RunSeconds& seconds, Session& session, RunRemains& remains) {
    const bool found = options.centre.source == CentreChoice::Source::Search;
    if (!found || best.indexed.verdict.lattice == Confidence::Low || series.centres.empty())
        return std::nullopt;
    const std::vector<CentreShift> shifts =
        refineCentres(best.indexed.refined.positions, best.indexed.level.tilts(), best.indexed.lattice(),
                      best.volume.centre(), best.volume.tilts);
    const auto moved =
        std::count_if(shifts.begin(), shifts.end(), [](const CentreShift& s) { return s.applies; });
    const auto aside = std::count_if(shifts.begin(), shifts.end(),
                                     [](const CentreShift& s) { return s.applies && s.isFraction; });
    constexpr double kFewPatterns = 0.05;
    if (aside == 0 && static_cast<double>(moved) <= kFewPatterns * static_cast<double>(shifts.size()))
        return std::nullopt;
    const CentredSeries better =
        timed(seconds.preprocess, [&] { return recentred(series, shifts, best.axis.angle, session); });
    best.giveUpVolume();
    Attempts attempts(better, options, stages, seconds, session, remains);
    std::optional<Attempt> next = attempts.tryAt(best.axis);
    const bool helps = next && (meritOf(*next) > meritOf(best) ||
                                (meritOf(*next) > 0.95 * meritOf(best) &&
                                 next->indexed.refined.lattice.rms < 0.9 * best.indexed.refined.lattice.rms));
    if (!helps) return std::nullopt;
    session.warn(
        "the spots of " + std::to_string(moved) + " patterns lie off the nodes of the lattice together" +
        (aside > 0 ? ", those of " + std::to_string(aside) + " by a fraction of a base vector" : "") +
        "; their centres were put right");
    // Patterns off their places hide where the axis is.
    followAxis(attempts, *next);
    return next;
}

void findCrystals(Attempt& attempt, const RunOptions& options, bool anyCell, RunSeconds& seconds,
                  Session& session) {
    attempt.crystals = timed(seconds.cell, [&] {
        return findFurtherCrystals(
            attempt.indexed, attempt.lattice.runnerUp ? &*attempt.lattice.runnerUp : nullptr,
            recordingOf(attempt.volume, attempt.axis), {options.crystals, anyCell, options.cell}, session);
    });
}

bool isDoubtful(const std::optional<Attempt>& attempt) {
    if (!attempt || attempt->indexed.verdict.lattice == Confidence::Low) return true;
    const double own = 1.0 - attempt->indexed.evidence.elsewhere;
    return attempt->indexed.refined.lattice.fraction() < 0.7 * own;
}

/// The axis of the search; nothing where that finds none either.
std::optional<TiltAxis> searchedAxis(const CentredSeries& series, AxisChoice choice, const RunStages& stages,
                                     Session& session) {
    choice.source = AxisChoice::Source::Search;
    const QuietLog quiet(session, QuietLog::Keep::InLogAlone);
    try {
        return stages.findAxis(series, choice, session);
    } catch (const Failure& failure) {
        if (failure.kind() == FailureKind::Canceled) throw;
        return std::nullopt;
    }
}

/// Nothing, and a warning, where they cannot be measured: the lattice stands without them.
std::optional<Intensities> intensitiesOf(const Indexed& indexed, const Attempt& best,
                                         const RecordedCounts& counts, const IntensityChoice& choice,
                                         const RunStages& stages, Session& session) {
    try {
        return stages.measureIntensities(indexed, best.volume, best.axis, counts, choice, session);
    } catch (const Failure& failure) {
        if (failure.kind() == FailureKind::Canceled) throw;
        session.warn(std::string(failure.what()) + "; the files hold sums over the volume instead");
        return std::nullopt;
    }
}

/// The intensities of the other crystals, and of all without the spots that they share.
void measureOthers(Attempt& best, Intensities& first, const RecordedCounts& counts,
                   const IntensityChoice& choice, const RunStages& stages, RunSeconds& seconds,
                   Session& session) {
    std::vector<Intensities*> all = {&first};
    std::vector<char> centrings = {best.indexed.symmetry().centring};
    for (FurtherCrystal& crystal : best.crystals.others) {
        crystal.intensities = timed(seconds.integrate, [&] {
            return intensitiesOf(crystal.indexed, best, counts, choice, stages, session);
        });
        if (!crystal.intensities) continue;
        all.push_back(&*crystal.intensities);
        centrings.push_back(crystal.indexed.symmetry().centring);
    }
    if (all.size() > 1) separateCrystals(all, centrings, counts.frames->GetDepth());
}

/// In what the sphere contradicts the series.
std::string curvatureText(const CurvatureScale& curvature, const SeriesFacts& facts) {
    return "the Ewald sphere is curved as if the pixel size were " +
           pixelSizeText(curvature.factor * facts.pixelSize) + ", " +
           withUncertainty(curvature.factor, curvature.sigma) +
           " times the stated one: either the pixel size is wrong (--pixel-size), and with it all edges, or "
           "the high " +
           formatted("tension is not %.6g kV (--voltage)", facts.kiloVolts);
}

/// What neither the series nor the caller states.
std::vector<std::string> assumptions(const SeriesFacts& facts, const TiltAxis& axis) {
    std::vector<std::string> assumed;
    if (axis.source == "assumed") assumed.push_back("a tilt axis along y (--tilt-axis DEG or search)");
    if (facts.kiloVoltsAssumed) assumed.push_back("200 kV (--voltage)");
    return assumed;
}

RunResult runCentred(CentredSeries centred, const RunOptions& options, const RunStages& stages, RunSeconds s,
                     Session& session, RunRemains& remains) {
    const auto start = std::chrono::steady_clock::now();
    session.beginPart(3, kRunParts, "tilt axis");
    TiltAxis axis = timed(s.tiltAxis, [&] { return stages.findAxis(centred, options.axis, session); });
    remains.assumed = assumptions(centred.facts, axis);

    Attempts attempts(centred, options, stages, s, session, remains);
    const bool mayChoose = options.axis.source == AxisChoice::Source::Series;
    std::optional<Attempt> best = mayChoose ? attempts.tryAt(axis) : attempts.at(axis);
    if (best) followAxis(attempts, *best);
    // A second crystal may be why the first one leaves much over.
    if (best && mayChoose && isDoubtful(best)) findCrystals(*best, options, false, s, session);
    if (mayChoose && isDoubtful(best)) {
        session.warn(
            axis.source == "header" || axis.source == "calibration"
                ? "the tilt axis that the " + (axis.source == "header" ? "series" : axis.source) +
                      " states gives no convincing lattice; it is searched"
                : "the series does not state its tilt axis, and along y gives no convincing lattice; "
                  "it is searched");
        session.beginPart(3, kRunParts, "search the tilt axis");
        const std::optional<TiltAxis> found =
            timed(s.tiltAxis, [&] { return searchedAxis(centred, options.axis, stages, session); });
        std::optional<Attempt> searched;
        if (best) best->giveUpVolume();
        if (found) searched = attempts.tryAt(*found);
        if (searched) followAxis(attempts, *searched);
        if (searched && (!best || meritOf(*searched) > meritOf(*best))) best = std::move(searched);
    }
    if (!best) throw attempts.firstFailure();
    attempts.restoreVolume(*best);
    if (auto refined = withRefinedCentres(centred, *best, options, stages, s, session, remains))
        best = std::move(refined);
    else
        attempts.restoreVolume(*best);
    if (best->crystals.others.empty()) findCrystals(*best, options, true, s, session);
    tellMovedAxis(best->axis, session);
    if (!best->indexed.strain.empty()) session.warn(best->indexed.strain);
    if (!best->indexed.contradiction.empty())
        session.warn("the reflections contradict the calibration that was given (--distortion): " +
                     best->indexed.contradiction + "; was it made at this camera length and focus?");
    if (best->indexed.curvature.contradicts())
        session.warn(curvatureText(best->indexed.curvature, centred.facts));
    if (best->axis.source == "assumed" && best->indexed.axisConfirmed) best->axis.source = "refined";
    std::optional<Intensities> intensities;
    centred.frames.reset();
    if (options.intensities.wanted && centred.counts.wanted()) {
        session.beginPart(8, kRunParts, "measure intensities", centred.counts.frames ? 1 : 2);
        if (!centred.counts.frames)
            timed(s.read, [&] {
                centred.counts.restore(session);
                return true;
            });
        intensities = timed(s.integrate, [&] {
            return intensitiesOf(best->indexed, *best, centred.counts, options.intensities, stages, session);
        });
        if (intensities)
            measureOthers(*best, *intensities, centred.counts, options.intensities, stages, s, session);
    }
    s.total += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {std::move(best->axis),     std::move(best->volume),
            std::move(best->lattice),  std::move(best->indexed),
            std::move(centred.counts), std::move(intensities),
            std::move(best->crystals), s,
            session.warnings(),        options};
}

/// \param load  gives the Series
template <typename Load>
RunResult runAll(Load load, const RunOptions& options, const RunStages& stages, Session& session,
                 RunRemains& remains) {
    RunSeconds s;
    session.beginPart(1, kRunParts, "read");
    Series series = timed(s.read, load);
    // Counts that cannot be read again are kept.
    requireMemoryForSeries(series.frames->m_Header, options.intensities.wanted && !series.again ? 1 : 0);
    session.beginPart(2, kRunParts, "preprocess", 4);
    CentredSeries centred = timed(s.preprocess, [&] {
        return bounded(stages.centre(std::move(series), options.centre, options.intensities.wanted, session),
                       options.volumeSize, session);
    });
    requireMemoryForVolume(centred.frames->m_Header, 1);
    s.total.seconds = s.read.seconds + s.preprocess.seconds;
    return runCentred(std::move(centred), options, stages, s, session, remains);
}

/// What the run returns; a failure to find anything tells what had to be assumed.
template <typename Run>
RunResult explained(RunRemains* remains, int jobs, Run run) {
    const Workers workers(jobs);
    RunRemains unwanted;
    RunRemains& kept = remains ? *remains : unwanted;
    try {
        return run(kept);
    } catch (const Failure& failure) {
        if (failure.kind() != FailureKind::NothingFound || kept.assumed.empty()) throw;
        std::string text = "assumed, because the series does not state it: ";
        for (std::size_t i = 0; i < kept.assumed.size(); ++i)
            text += (i > 0 ? " and " : "") + kept.assumed[i];
        throw Failure(text + "; " + failure.what(), FailureKind::NothingFound);
    }
}

}  // namespace

RunResult run(const std::filesystem::path& path, const RunOptions& options, Session& session,
              RunRemains* remains, const RunStages& stages) {
    return explained(remains, options.jobs, [&](RunRemains& kept) {
        return runAll([&] { return loadSeries(path, options, session); }, options, stages, session, kept);
    });
}

RunResult run(std::unique_ptr<VoxMRCData> series, const RunOptions& options, Session& session,
              RunRemains* remains, const RunStages& stages) {
    return explained(remains, options.jobs, [&](RunRemains& kept) {
        return runAll([&] { return makeSeries(std::move(series), options, session); }, options, stages,
                      session, kept);
    });
}

RunResult run(CentredSeries series, const RunOptions& options, Session& session, RunRemains* remains,
              const RunStages& stages) {
    return explained(remains, options.jobs, [&](RunRemains& kept) {
        return runCentred(std::move(series), options, stages, {}, session, kept);
    });
}

}  // namespace vrk
