#include "pipeline/run/Series.h"

#include <cmath>
#include <string>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/SeriesCheck.h"
#include "pipeline/run/Preprocessing.h"

namespace vrk {
namespace {

constexpr double kAssumedKiloVolts = 200.0;

/// What is known of the instrument of a series. A scale of the pixel size holds for one camera length.
void settleInstrument(const RunOptions& options, double stated, SeriesFacts& facts, Session& session) {
    if (!options.instrument) return;
    facts.instrument = options.instrument;
    InstrumentCalibration& known = *facts.instrument;
    facts.distortion = known.distortionAt(stated);
    const std::string file = known.file.string();
    if (!hasCameraLength(known, stated, session)) {
        known.pixelScale.reset();
    } else if (known.pixelScale && (options.pixelSize || !options.fineCalibration.empty())) {
        session.warn("the pixel size is given; the scale in " + file + " was not applied");
        known.pixelScale.reset();
    }
    if (known.pixelScale) facts.pixelSize *= known.pixelScale->value;
    constexpr double kMuch = 1.0;  // degrees
    const bool differs = known.axisAngle && facts.axis &&
                         std::abs(std::remainder(known.axisAngle->value - *facts.axis, 360.0)) > kMuch;
    if (differs && options.axis.source == AxisChoice::Source::Series)
        session.warn(formatted("the series states a tilt axis at %.2f degrees, ", *facts.axis) + file +
                     formatted(" one at %.2f, which is taken", known.axisAngle->value));
}

double settledPixelSize(const mrcH& header, const RunOptions& options, Session& session) {
    const double stated = options.pixelSize.value_or(header.m_pixelsize);
    if (!(stated > 0.0))
        throw Failure(
            "the series does not say its pixel size, without which the cell has no scale; give it "
            "with --pixel-size in 1/m per pixel");
    if (options.fineCalibration.empty()) return stated;
    const double calibrated = fineCalibratedPixelSize(options.fineCalibration, stated, session);
    return calibrated > 0.0 ? calibrated : stated;
}

void settleVoltage(const mrcH& header, const RunOptions& options, SeriesFacts& facts, Session& session) {
    const double stated = header.value(SliceValue::HighTension, 0);
    if (options.kiloVolts) refuseImpossibleVoltage(*options.kiloVolts, stated);
    facts.kiloVolts = options.kiloVolts.value_or(stated);
    facts.kiloVoltsAssumed = !(facts.kiloVolts >= 10.0 && facts.kiloVolts <= 3000.0);
    if (!facts.kiloVoltsAssumed) return;
    facts.kiloVolts = kAssumedKiloVolts;
    session.warn("the series does not say its high tension; 200 kV are assumed (--voltage)");
}

}  // namespace

double SeriesFacts::wavelength() const {
    return EwaldCurvature::wavelength(kiloVolts);
}

KnownTerms knownTerms(const SeriesFacts& facts) {
    KnownTerms terms;
    if (!facts.instrument) return terms;
    const auto set = [&](InstrumentTerm term, const std::optional<CalibratedValue>& value, double inFrames) {
        if (value) terms[static_cast<std::size_t>(term)] = inFrames;
    };
    const InstrumentCalibration& known = *facts.instrument;
    set(InstrumentTerm::EllipseCosine, known.ellipse, 0.0);
    set(InstrumentTerm::EllipseSine, known.ellipse, 0.0);
    set(InstrumentTerm::Radial, known.radial, 0.0);
    if (known.tiltScale) set(InstrumentTerm::TiltScale, known.tiltScale, known.tiltScale->value - 1.0);
    if (known.axisTilt) set(InstrumentTerm::AxisTilt, known.axisTilt, known.axisTilt->value * kDegree);
    return terms;
}

Series makeSeries(std::unique_ptr<VoxMRCData> frames, const RunOptions& options, Session& session) {
    Series series;
    series.frames = checkedSeries(std::move(frames), session);
    const mrcH& header = series.frames->m_Header;
    SeriesFacts& facts = series.facts;
    facts.size = {header.nx, header.ny, header.nz};
    facts.tiltFirst = header.tilt(0);
    facts.tiltLast = header.tilt(header.nz - 1);
    facts.pixelSize = settledPixelSize(header, options, session);
    settleVoltage(header, options, facts, session);
    if (const float axis = header.value(SliceValue::TiltAxis, 0); axis != 0.0F) facts.axis = axis;
    facts.motion = statedMotion(header);
    settleInstrument(options, header.m_pixelsize > 0.0F ? header.m_pixelsize : facts.pixelSize, facts,
                     session);
    return series;
}

Series loadSeries(const std::filesystem::path& path, const RunOptions& options, Session& session) {
    std::error_code ignored;
    // A pipe is read once.
    const bool stays = std::filesystem::is_regular_file(path, ignored);
    const FileState state = stays ? stateOf(path) : FileState();
    Series series = makeSeries(readSeries(path, session), options, session);
    if (!stays) return series;
    series.again = [=](Session& later) {
        const QuietLog quiet(later, QuietLog::Keep::InLogAlone);
        refuseChanged(path, state);
        std::unique_ptr<VoxMRCData> frames = makeSeries(readSeries(path, later), options, later).frames;
        refuseChanged(path, state);
        return frames;
    };
    return series;
}

}  // namespace vrk
