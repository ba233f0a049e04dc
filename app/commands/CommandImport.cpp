#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/SeriesImport.h"

namespace vrk::app {
namespace {

struct ImportArguments {
    ImportSettings settings;
    std::vector<std::string> frames;
    std::string output;
    LogOptions log;
    bool json = false;
};

nlohmann::ordered_json reportJson(const ImportArguments& options, const ImportResult& result,
                                  const Host& host) {
    const mrcH& header = result.series->m_Header;
    return {{"output", options.output},
            {"nx", header.nx},
            {"ny", header.ny},
            {"nz", header.nz},
            {"tilt_first", header.tilt(0)},
            {"tilt_last", header.tilt(header.nz - 1)},
            {"pixel_size", header.m_pixelsize},
            {"kilovolts", header.value(SliceValue::HighTension, 0)},
            {"tilt_axis", header.value(SliceValue::TiltAxis, 0)},
            {"frames_found", result.framesFound},
            {"frames_used", result.framesUsed},
            {"duplicates", result.duplicates},
            {"empty", result.empty},
            {"bad", result.bad},
            {"sum", result.sum},
            {"bin", options.settings.bin},
            {"scale", result.scale},
            {"clipped", result.clipped},
            {"warnings", host.warnings()}};
}

void report(Host& host, const ImportArguments& options, const ImportResult& result) {
    if (options.json) {
        host.out() << jsonText(reportJson(options, result, host), 1) << '\n';
        return;
    }
    const mrcH& header = result.series->m_Header;
    const auto orUnknown = [](float value, const std::string& unit) {
        char text[60];
        std::snprintf(text, sizeof text, "%.6g", static_cast<double>(value));
        return value != 0 ? text + unit : std::string("not known");
    };
    host.out() << options.output << ": " << header.nz << " slices of " << header.nx << " x " << header.ny
               << " pixels from " << result.framesUsed << " of " << result.framesFound << " frames";
    if (result.sum > 1) host.out() << ", " << result.sum << " added up at a time";
    if (result.scale != 1) host.out() << ", counts x " << result.scale;
    host.out() << "\ntilts " << header.tilt(0) << " to " << header.tilt(header.nz - 1)
               << " degrees\npixel size "
               << (header.m_pixelsize > 0 ? pixelSizeText(header.m_pixelsize) : "not known") << ", voltage "
               << orUnknown(header.value(SliceValue::HighTension, 0), " kV") << ", tilt axis "
               << orUnknown(header.value(SliceValue::TiltAxis, 0), " degrees") << '\n';
}

void runImport(Host& host, const ImportArguments& options) {
    host.openLog(options.log);
    ImportSettings settings = options.settings;
    settings.files.assign(options.frames.begin(), options.frames.end());
    for (const std::filesystem::path& frames : settings.files)
        if (std::error_code error; std::filesystem::equivalent(frames, options.output, error))
            throw Failure("the series would replace its frames " + frames.string() + "; give -o another name",
                          FailureKind::Usage);
    const ImportResult result = [&] {
        const Stage stage(host.session(), "import");
        return importSeries(settings, &host.session().progress(),
                            [&host](const std::string& text) { host.warn(text); });
    }();
    host.session().checkCanceled();

    writeData(*result.series, options.output, host.session());
    report(host, options, result);
}

Command describeImport(CommandLine& line, const std::shared_ptr<ImportArguments>& options, Host* host) {
    ImportSettings& settings = options->settings;
    Command command =
        line.command("import", "Make a tilt series from the frames of microscopes and collection programs");
    command
        .option("FRAMES", options->frames,
                "Files of frames (" + FrameFormat::names() +
                    ", also packed as .gz or .bz2), FILE.h5:/ARRAY, folders of frames, or lists that name "
                    "them (.ed3d, .pts, .mdoc, XDS.INP)")
        .required()
        .typeName("");
    command.option("-o,--output", options->output, "Series to write").required().typeName("SERIES.mrc");
    command.option(
        "--tilts", settings.tilts,
        "Tilts of the frames: a list (.tlt, .rawtlt, .mdoc, .ed3d, .pts, XDS.INP, cRED_log.txt), which may "
        "also state axis, voltage and pixel size, or START:STEP in degrees [from the frames]");
    command.flag("--skip-bad", settings.skipBad,
                 "Leave out frames that cannot be read, with a warning that names them");
    command.flag("--allow-outside", settings.allowOutside,
                 "Take frames that a list or an HDF5 file names outside its own folder, too");
    command.option("--sum", settings.sum, "Neighbouring frames to add up [as few as fit into 300 slices]");
    command.option("--bin", settings.bin, "Pixels along each edge to add up into one").showDefault();
    command.option("--scale", settings.scale,
                   "Factor on the counts, which become 16-bit integers [1 where counts fit, otherwise chosen "
                   "so that neither weak nor bright reflections are lost]");
    command.option("--pixel-size", settings.pixelSize,
                   "Pixel size of the frames as they are in the files, 1/m per pixel [from the frames]");
    command.option("--axis", settings.axis,
                   "Direction of the tilt axis, degrees: along (-sin t, cos t), x to the right, y down [from "
                   "the frames or the list, where they state it for patterns]");
    command.option("--voltage", settings.kilovolts, "High tension in kV [from the frames]");
    addLogOptions(command, options->log);
    command.flag("--json", options->json, "Print the summary as JSON");
    addMemoryOption(command, host);
    command.footer(
        "Frames are sorted by tilt; empty ones and those whose tilt has been seen before are left out. At "
        "most 300\n"
        "slices are written, more frames are added up. Frames need not be square.\n"
        "Memory: the series to be written and one frame.\n\n"
        "Examples:\n"
        "  vrk import frames -o series.mrc                                 all frames of a folder\n"
        "  vrk import frames/*.img -o series.mrc --sum 2                   SMV: tilts and pixel size from "
        "the headers\n"
        "  vrk import frames/*.img -o series.mrc --tilts XDS.INP           tilts, pixel size and axis from "
        "XDS.INP\n"
        "  vrk import frames/*.tif -o series.mrc --tilts -60:0.5 --pixel-size 4.9e7    TIFF, single pages\n"
        "  vrk import movie.tif -o series.mrc --tilts movie.rawtlt --pixel-size 4.9e7  TIFF, many pages\n"
        "  vrk import x_master.h5 -o series.mrc                            HDF5 with its data files\n"
        "  vrk import frames/1.ed3d -o series.mrc                          MRC frames with their .ed3d list\n"
        "  vrk import stack.mrc -o series.mrc --tilts stack.mrc.mdoc       MRC stack with .mdoc, .tlt or "
        ".rawtlt");
    return command;
}

}  // namespace

void addImportOptions(CommandLine& line) {
    const auto options = std::make_shared<ImportArguments>();
    describeImport(line, options, nullptr).action([options] {});
}

void addImportCommand(CommandLine& line, Host& host) {
    const auto options = std::make_shared<ImportArguments>();
    describeImport(line, options, &host).action([options, &host] { runImport(host, *options); });
}

}  // namespace vrk::app
