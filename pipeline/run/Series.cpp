#include "pipeline/run/Series.h"

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/SeriesCheck.h"
#include "pipeline/run/Preprocessing.h"

namespace vrk {
namespace {

constexpr double kAssumedKiloVolts = 200.0;

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
    return series;
}

Series loadSeries(const std::filesystem::path& path, const RunOptions& options, Session& session) {
    return makeSeries(readSeries(path, session), options, session);
}

}  // namespace vrk
