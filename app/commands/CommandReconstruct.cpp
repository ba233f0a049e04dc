#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>

#include "commands/Commands.h"
#include "console/JobsOption.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/Workers.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/run/MemoryNeed.h"
#include "pipeline/run/Preprocessing.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk::app {
namespace {

struct ReconstructArguments {
    std::string series;
    std::string output;
    LogOptions log;
    std::string fineCalibration;
    double finePixelSize = 0;
    int jobs = 0;
    bool json = false;
};

/// The calibrated pixel size that the user wants, 0 for none.
double calibratedPixelSize(const ReconstructArguments& options, const VoxMRCData& series, Host& host) {
    if (options.finePixelSize > 0) return options.finePixelSize;
    const mrcH& header = series.m_Header;
    const float ofSlice = header.value(SliceValue::PixelSize, 0);
    const double stated = static_cast<double>(ofSlice > 0 ? ofSlice : header.m_pixelsize);
    if (!options.fineCalibration.empty())
        if (const double size = fineCalibratedPixelSize(options.fineCalibration, stated, host.session());
            size > 0)
            return size;
    // Files without slice values state the size in their main header.
    return ofSlice > 0 ? 0 : static_cast<double>(header.m_pixelsize);
}

void runReconstructCommand(const ReconstructArguments& options, Host& host) {
    host.openLog(options.log);
    if (std::error_code error; std::filesystem::equivalent(options.series, options.output, error))
        throw Failure("the volume would replace the series " + options.series + "; give -o another name",
                      FailureKind::Usage);
    const std::unique_ptr<VoxMRCData> series = readSeries(options.series, host.session());
    if (series->GetWidth() != series->GetHeight())
        throw Failure(options.series + " has patterns of " + std::to_string(series->GetWidth()) + " x " +
                      std::to_string(series->GetHeight()) +
                      " pixels, a volume is made of square ones; 'vrk preprocess' makes them square");
    requireMemoryForVolume(series->m_Header, 0);
    const double pixelSize = calibratedPixelSize(options, *series, host);

    const Workers workers(options.jobs);
    VoxMRCstemProcessing processing;
    processing.registerObserver(&host.session().progress());
    const auto start = std::chrono::steady_clock::now();
    const std::unique_ptr<VoxMRCData> volume = runStage(host.session(), "reconstruction", [&] {
        return processing.recoByAngle(series.get(), pixelSize, 0, true);
    });
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    writeData(*volume, options.output, host.session());

    const mrcH& header = volume->m_Header;
    if (options.json) {
        const nlohmann::ordered_json json = {
            {"input", options.series},
            {"output", options.output},
            {"dims", {volume->GetWidth(), volume->GetHeight(), volume->GetDepth()}},
            {"pixel_size", header.m_pixelsize},
            {"max", volume->m_Histogram->m_MaxValue},
            {"seconds", seconds.count()},
        };
        host.out() << jsonText(json, 2) << '\n';
        return;
    }
    host.out() << "volume of " << volume->GetWidth() << " x " << volume->GetHeight() << " x "
               << volume->GetDepth() << " voxels, written to " << options.output << "\npixel size "
               << pixelSizeText(header.m_pixelsize) << ", largest value " << volume->m_Histogram->m_MaxValue
               << formatted(", %.1f s\n", seconds.count());
}

}  // namespace

void addReconstructCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<ReconstructArguments>();
    Command command =
        line.command("reconstruct", "Build the reciprocal volume from a preprocessed tilt series");
    command.option("series", options->series, "Preprocessed tilt series (.mrc)")
        .required()
        .typeName("SERIES.mrc");
    command.option("-o,--output", options->output, "Volume to write").required().typeName("VOLUME.mrc");
    CommandOption calibration =
        command.option("--fine-calibration", options->fineCalibration, "File with calibrated pixel sizes")
            .typeName("FILE");
    command.option("--fine-pixel-size", options->finePixelSize, "Calibrated pixel size, 1/m per pixel")
        .positive()
        .excludes(calibration);
    command.flag("--json", options->json, "Print the result as JSON");
    addJobsOption(command, options->jobs);
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk reconstruct clean.mrc -o volume.mrc --fine-calibration calibration.txt");
    command.action([options, &host] { runReconstructCommand(*options, host); });
}

}  // namespace vrk::app
