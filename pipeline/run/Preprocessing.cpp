#include "pipeline/run/Preprocessing.h"

#include <string>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/LibraryStage.h"
#include "processing/FineCalibrationImport.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

std::unique_ptr<VoxMRCData> preprocessed(std::unique_ptr<VoxMRCData> series, Session& session,
                                         RecordedFrames* recorded) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    using Operation = VoxMRCData* (VoxMRCstemProcessing::*)(VoxMRCData*);
    const auto apply = [&](const char* name, Operation operation) {
        series = runStage(session, name, [&] { return (processing.*operation)(series.get()); });
    };
    if (series->GetWidth() != series->GetHeight()) {
        session.warn("the frames are not square; they were padded about their centre");
        apply("pad to square", &VoxMRCstemProcessing::PadToSquare);
    }
    apply("hot spots", &VoxMRCstemProcessing::HotSpotFilterImageStack);
    std::vector<PatternCentre> centres;
    std::unique_ptr<VoxMRCData> centred = runStage(session, "centre", [&]() -> VoxMRCData* {
        if (!processing.findCentres(series.get(), centres)) return nullptr;
        return processing.moveToCentre(series.get(), centres);
    });
    if (recorded) *recorded = {std::move(series), std::move(centres)};
    series = std::move(centred);
    apply("background", &VoxMRCstemProcessing::step1_BackgroundSubstraction);
    return series;
}

double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Session& session) {
    int count = 0;
    QuietLog quiet(session, QuietLog::Keep::UntilReleased);
    const std::unique_ptr<double[]> table(FineCalibrationImport::initFineCalibration(path.string(), &count));
    if (!table) throw Failure(path.string() + ": " + session.lastError());
    quiet.release();
    const double size = FineCalibrationImport::calibratedPixelSize(table.get(), count, stated);
    if (!(size > 0.0))
        session.warn(path.string() + " has no line for the pixel size " + std::to_string(stated) +
                     " 1/m of the series; the size is taken as stated");
    return size;
}

}  // namespace vrk
