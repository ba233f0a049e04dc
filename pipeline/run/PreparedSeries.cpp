#include "pipeline/run/PreparedSeries.h"

#include <cmath>
#include <numbers>
#include <utility>

#include "pipeline/base/LibraryStage.h"
#include "pipeline/geometry/TiltAxisSearch.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

CentredSeries centre(Series series, const CentreChoice& choice, bool keepCounts, Session& session) {
    RecordedCounts counts{.again = keepCounts ? series.again : nullptr};
    MovedSeries moved =
        preprocessed(std::move(series.frames), choice, session, keepCounts ? &counts : nullptr);
    RadialNoise noise(*moved.frames);
    return {std::move(moved.frames),   series.facts, std::move(noise), std::move(moved.centres),
            std::move(moved.recorded), 0.0,          std::move(counts)};
}

TiltAxis findAxis(const CentredSeries& series, const AxisChoice& choice, Session& session) {
    switch (choice.source) {
        case AxisChoice::Source::Given:
            return {choice.angle, 0.0, "option", {}};
        case AxisChoice::Source::AlongY:
            return {0.0, 0.0, "option", {}};
        case AxisChoice::Source::Search: {
            std::optional<CentredSeries> corrected;
            if (!series.facts.distortion.isNone()) corrected = rotate(series, {}, session);
            const TiltAxisResult found =
                findTiltAxis(corrected ? *corrected->frames : *series.frames, TiltAxisMethod::TwoD,
                             choice.accuracy, choice.folder, session);
            return {found.angle, found.uncertainty, "search", {}, found.scores};
        }
        case AxisChoice::Source::Series:
            break;
    }
    if (series.facts.instrument && series.facts.instrument->axisAngle) {
        const CalibratedValue& axis = *series.facts.instrument->axisAngle;
        return {axis.value, axis.sigma, "calibration", {}};
    }
    if (series.facts.axis) return {*series.facts.axis, 0.0, "header", {}};
    return {};
}

CentredSeries recentred(const CentredSeries& series, const std::vector<CentreShift>& shifts, double axis,
                        Session& session) {
    CentredSeries result{nullptr, series.facts, series.noise, series.centres, series.recorded, 0.0, {}};
    const double c = std::cos(axis * std::numbers::pi / 180.0);
    const double s = std::sin(axis * std::numbers::pi / 180.0);
    PatternCentre middle;
    middle.x = 0.5 * (series.frames->GetWidth() - 1.0);
    middle.y = 0.5 * (series.frames->GetHeight() - 1.0);
    middle.source = PatternCentre::Source::Lattice;
    std::vector<PatternCentre> moves(shifts.size(), middle);
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        if (!shifts[i].applies) continue;
        // The frames still have the distortion that the reflections are free of.
        const auto [x, y] = series.facts.distortion.recorded(c * shifts[i].across - s * shifts[i].along,
                                                             s * shifts[i].across + c * shifts[i].along);
        moves[i].x += x;
        moves[i].y += y;
        result.recorded.recentre(static_cast<unsigned>(i), x, y);
        PatternCentre& centre = result.centres[i];
        centre.x += x;
        centre.y += y;
        centre.error = shifts[i].sigma;
        centre.source = PatternCentre::Source::Lattice;
        centre.doubtful = false;
    }
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    result.frames =
        runStage(session, "centre", [&] { return processing.moveToCentre(series.frames.get(), moves); });
    return result;
}

CentredSeries rotate(const CentredSeries& series, const TiltAxis& axis, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    return {runStage(session, "rotation",
                     [&] {
                         return processing.turnUndistorted(series.frames.get(), axis.angle,
                                                           series.facts.distortion);
                     }),
            series.facts,
            series.noise,
            series.centres,
            series.recorded,
            axis.angle,
            {}};
}

}  // namespace vrk
