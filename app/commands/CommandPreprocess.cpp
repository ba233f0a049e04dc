#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "commands/Commands.h"
#include "console/CentreOption.h"
#include "console/JobsOption.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/Workers.h"
#include "pipeline/formats/InstrumentFile.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/run/MemoryNeed.h"
#include "pipeline/run/Preprocessing.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk::app {
namespace {

struct PreprocessArguments {
    std::string series;
    std::string output;
    LogOptions log;
    std::string rotate;
    std::filesystem::path distortion;
    double smooth = 0;
    int bin = 1;
    bool rebin = false;
    bool crop = false;
    int jobs = 0;
    bool noHotSpot = false;
    bool noCentre = false;
    std::string centre;
    bool noBackground = false;
    bool json = false;
};

struct Step {
    std::string name;
    double seconds;
};

/// Runs one operation after the other and keeps only the latest result.
class Preprocessing {
public:
    Preprocessing(Host& host, std::unique_ptr<VoxMRCData> series)
        : m_host(host), m_series(std::move(series)), m_before(*m_series) {
        m_processing.registerObserver(&host.session().progress());
    }

    template <typename Operation>
    void apply(const std::string& name, Operation operation) {
        const auto start = std::chrono::steady_clock::now();
        m_series = runStage(m_host.session(), name, [&] { return operation(m_processing, m_series.get()); });
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        m_steps.push_back({name, seconds.count()});
    }

    void makeSquare(bool crop) {
        apply(crop ? "crop to square" : "pad to square", [crop](VoxMRCstemProcessing& p, VoxMRCData* s) {
            return crop ? p.CropToSquare(s) : p.PadToSquare(s);
        });
    }

    void centre(const CentreChoice& choice) {
        const auto start = std::chrono::steady_clock::now();
        MovedSeries moved = movedToCentre(std::move(m_series), m_before, choice, m_host.session());
        m_series = std::move(moved.frames);
        m_recorded = std::move(moved.recorded);
        const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        m_steps.push_back({"centre", seconds.count()});
    }

    const RecordedPixels& recorded() const { return m_recorded; }
    VoxMRCData& series() { return *m_series; }
    const std::vector<Step>& steps() const { return m_steps; }

private:
    Host& m_host;
    VoxMRCstemProcessing m_processing;
    std::unique_ptr<VoxMRCData> m_series;
    FrameSize m_before;
    RecordedPixels m_recorded;
    std::vector<Step> m_steps;
};

/// The angle of --rotate: a number, or that of the series' records.
std::optional<double> axisAngle(const std::string& text, const VoxMRCData& series) {
    if (text.empty()) return std::nullopt;
    if (text == "header") {
        const double angle = static_cast<double>(series.m_Header.value(SliceValue::TiltAxis, 0));
        if (angle == 0)
            throw Failure("the series' records carry no tilt axis; give --rotate its angle in degrees");
        return angle;
    }
    double angle = 0;
    if (!parseNumber(text, angle))
        throw Failure("--rotate takes an angle in degrees or 'header', not '" + text + "'",
                      FailureKind::Usage);
    return angle;
}

void process(const PreprocessArguments& options, Preprocessing& work, Session& session) {
    using Processing = VoxMRCstemProcessing;
    if (work.series().GetWidth() != work.series().GetHeight()) work.makeSquare(options.crop);
    if (!options.noHotSpot)
        work.apply("hot spots", [](Processing& p, VoxMRCData* s) { return p.HotSpotFilterImageStack(s); });
    if (!options.noCentre) {
        CentreChoice choice;
        setCentre(choice, options.centre);
        work.centre(choice);
    }
    if (!options.noBackground)
        work.apply("background", [&](Processing& p, VoxMRCData* s) {
            return p.step1_BackgroundSubstraction(s, work.recorded());
        });
    if (options.smooth > 0)
        work.apply("smooth", [&](Processing& p, VoxMRCData* s) { return p.smooth(s, options.smooth); });
    const std::optional<double> angle = axisAngle(options.rotate, work.series());
    FrameDistortion distortion;
    if (!options.distortion.empty())
        distortion = applyInstrument(readInstrumentFile(options.distortion), work.series().m_Header, session);
    if (angle || !distortion.isNone())
        work.apply(angle ? "rotation" : "distortion", [&](Processing& p, VoxMRCData* s) {
            return p.turnUndistorted(s, angle.value_or(0.0), distortion);
        });
    for (int factor = options.bin; factor > 1; factor /= 2)
        work.apply("binning", [&](Processing& p, VoxMRCData* s) {
            return options.rebin ? p.RebinImageStack(s, false, 0) : p.DownsampleImageStack(s, false, 0);
        });
}

void printTable(std::ostream& out, const PreprocessArguments& options, const Preprocessing& work,
                const VoxMRCData& result) {
    out << result.GetDepth() << " patterns of " << result.GetWidth() << " x " << result.GetHeight()
        << " pixels, written to " << options.output << "\n\n";
    for (const Step& step : work.steps())
        out << std::left << std::setw(16) << step.name << std::right << std::fixed << std::setprecision(2)
            << std::setw(8) << step.seconds << " s\n";
}

void printJson(std::ostream& out, const PreprocessArguments& options, const Preprocessing& work,
               const VoxMRCData& result) {
    nlohmann::ordered_json steps = nlohmann::ordered_json::array();
    for (const Step& step : work.steps())
        steps.push_back({{"name", step.name}, {"seconds", step.seconds}});
    const mrcH& header = result.m_Header;
    const nlohmann::ordered_json json = {
        {"input", options.series},
        {"output", options.output},
        {"dims", {result.GetWidth(), result.GetHeight(), result.GetDepth()}},
        {"pixel_size", header.value(SliceValue::PixelSize, 0)},
        {"density", {{"min", header.amin}, {"max", header.amax}, {"mean", header.amean}}},
        {"steps", steps},
    };
    out << jsonText(json, 2) << '\n';
}

void runPreprocessCommand(const PreprocessArguments& options, Host& host) {
    host.openLog(options.log);
    if (std::error_code error; std::filesystem::equivalent(options.series, options.output, error))
        throw Failure("the result would replace the series " + options.series + "; give -o another name",
                      FailureKind::Usage);
    std::unique_ptr<VoxMRCData> series = readSeries(options.series, host.session());
    const Workers workers(options.jobs);
    requireMemoryForSeries(series->m_Header, 1);
    Preprocessing work(host, std::move(series));
    process(options, work, host.session());
    writeData(work.series(), options.output, host.session());
    if (options.json)
        printJson(host.out(), options, work, work.series());
    else
        printTable(host.out(), options, work, work.series());
}

}  // namespace

void addPreprocessCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<PreprocessArguments>();
    Command command = line.command(
        "preprocess",
        "Prepare a tilt series for the reconstruction: hot spots, centre, background, rotation, binning");
    command.option("series", options->series, "Tilt series (.mrc)").required().typeName("SERIES.mrc");
    command.option("-o,--output", options->output, "Series to write").required().typeName("OUT.mrc");
    command.flag("--no-hotspot", options->noHotSpot, "Leave hot spots and dead pixels");
    addCentreOption(command, options->centre);
    command.flag("--no-center,--no-centre", options->noCentre, "Leave the direct beam where it is");
    command.flag("--no-background", options->noBackground, "Leave the background");
    command.option("--smooth", options->smooth, "Smooth with a Gaussian of this standard deviation, pixels")
        .range(0.0, 64.0);
    command
        .option("--rotate", options->rotate,
                "Turn the tilt axis at this angle from y to y (degrees; the axis lies along (-sin, cos) "
                "with x to "
                "the right and y down), or 'header' for that of the series' records")
        .typeName("DEG|header");
    command
        .option(
            "--distortion", options->distortion,
            "Take out the distortion in this file of 'vrk calibrate', with the rotation, and put pixel size "
            "and tilts right")
        .typeName("FILE");
    command.option("--bin", options->bin, "Reduce the size by this factor, averaging")
        .oneOf({"1", "2", "4", "8"});
    command.flag("--rebin", options->rebin, "With --bin: sum instead of averaging");
    command.flag("--crop", options->crop, "Crop frames that are not square instead of padding them");
    addJobsOption(command, options->jobs);
    command.flag("--json", options->json, "Print the result as JSON");
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk preprocess series.mrc -o clean.mrc --rotate 49.0 --log preprocess.log");
    command.action([options, &host] { runPreprocessCommand(*options, host); });
}

}  // namespace vrk::app
