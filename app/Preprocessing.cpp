#include "Preprocessing.h"

#include <string>

#include "Failure.h"
#include "LibraryStage.h"
#include "processing/FineCalibrationImport.h"
#include "processing/VoxMRCstemProcessing.h"

namespace host {

std::unique_ptr<VoxMRCData> preprocessed(std::unique_ptr<VoxMRCData> series, Host& host) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&host.progress());
    using Operation = VoxMRCData* (VoxMRCstemProcessing::*)(VoxMRCData*);
    const auto apply = [&](const char* name, Operation operation) {
        series = runStage(host, name, [&] { return (processing.*operation)(series.get()); });
    };
    if (series->GetWidth() != series->GetHeight()) {
        host.warn("the frames are not square; they were padded about their centre");
        apply("pad to square", &VoxMRCstemProcessing::PadToSquare);
    }
    apply("hot spots", &VoxMRCstemProcessing::HotSpotFilterImageStack);
    apply("centre", &VoxMRCstemProcessing::step2_CenterShift);
    apply("background", &VoxMRCstemProcessing::step1_BackgroundSubstraction);
    return series;
}

double fineCalibratedPixelSize(const std::filesystem::path& path, double stated, Host& host) {
    int count = 0;
    const bool quietBefore = host.log().quiet;
    host.log().quiet = true;
    const std::unique_ptr<double[]> table(FineCalibrationImport::initFineCalibration(path.string(), &count));
    host.log().quiet = quietBefore;
    if (!table) throw Failure(path.string() + ": " + host.log().lastError());
    const double size = FineCalibrationImport::calibratedPixelSize(table.get(), count, stated);
    if (!(size > 0.0))
        host.warn(path.string() + " has no line for the pixel size " + std::to_string(stated) +
                  " 1/m of the series; the size is taken as stated");
    return size;
}

}  // namespace host
