#include "pipeline/run/PreparedSeries.h"

#include <utility>

#include "pipeline/base/LibraryStage.h"
#include "pipeline/geometry/TiltAxisSearch.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

CentredSeries centre(Series series, bool keepRecorded, Session& session) {
    RecordedFrames recorded;
    std::unique_ptr<VoxMRCData> frames =
        preprocessed(std::move(series.frames), session, keepRecorded ? &recorded : nullptr);
    RadialNoise noise(*frames);
    return {std::move(frames), series.facts, std::move(noise), std::move(recorded)};
}

TiltAxis findAxis(const CentredSeries& series, const AxisChoice& choice, Session& session) {
    switch (choice.source) {
        case AxisChoice::Source::Given:
            return {choice.angle, 0.0, "option", {}};
        case AxisChoice::Source::AlongY:
            return {0.0, 0.0, "option", {}};
        case AxisChoice::Source::Search: {
            const TiltAxisResult found = findTiltAxis(*series.frames, TiltAxisMethod::TwoD, choice.accuracy,
                                                      choice.jobs, choice.folder, session);
            return {found.angle, found.uncertainty, "search", {}};
        }
        case AxisChoice::Source::Series:
            break;
    }
    if (series.facts.axis) return {*series.facts.axis, 0.0, "header", {}};
    return {};
}

CentredSeries rotate(const CentredSeries& series, const TiltAxis& axis, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    return {runStage(session, "rotation",
                     [&] {
                         return processing.step3_Rotation2TiltAxis(series.frames.get(), false, axis.angle, 0);
                     }),
            series.facts,
            series.noise,
            {}};
}

}  // namespace vrk
