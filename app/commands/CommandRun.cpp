#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "commands/Commands.h"
#include "console/AxisOption.h"
#include "console/ParameterOptions.h"
#include "console/RunReport.h"
#include "pictures/RunPictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/Run.h"
#include "pipeline/run/RunSummary.h"

namespace vrk::app {
namespace {

struct Options {
    std::filesystem::path series;
    std::filesystem::path folder;
    std::string tiltAxis;
    RunOptions run;
    bool keepVolume = false;
    bool pictures = true;
    bool json = false;
};

void runSeries(const Options& options, const std::string& given, Host& host) {
    makeFolder(options.folder);
    host.openLog(options.folder / "vrk.log", {"series: " + options.series.string(), "options: " + given});
    RunOptions choices = options.run;
    setAxis(choices.axis, options.tiltAxis);
    choices.axis.folder = options.folder / "axis";
    const RunResult result = run(options.series, choices, host.session());
    if (options.keepVolume) writeData(*result.volume.voxels, options.folder / "volume.mrc", host.session());
    writeResultFiles(result, options.folder, host.session());
    if (options.pictures) drawRunPictures(result, options.folder);
    const nlohmann::ordered_json summary = summaryJson(options.series, result, host.warnings());
    writeSummary(options.folder / "summary.json", summary);
    if (options.json)
        host.out() << summary.dump(2) << '\n';
    else
        printSummary(host.out(), result);
}

/// The options that the user gave, as they would stand on a command line.
std::string givenOptions(const CLI::App& command) {
    std::ostringstream text;
    for (const CLI::Option* option : command.get_options()) {
        if (option->count() == 0 || option->get_name().empty() || option->get_name()[0] != '-') continue;
        text << option->get_name();
        for (const std::string& value : option->results())
            text << ' ' << value;
        text << ' ';
    }
    return text.str();
}

}  // namespace

void addRunCommand(CLI::App& app, Host& host) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("run", "Find the unit cell of a raw tilt series and index its reflections");
    command->add_option("series", options->series, "Tilt series (.mrc); 'vrk import' makes one")
        ->required()
        ->type_name("SERIES.mrc");
    command->add_option("-o,--output", options->folder, "Folder for the results")
        ->required()
        ->type_name("FOLDER");
    command
        ->add_option("--tilt-axis", options->tiltAxis,
                     "Angle of the tilt axis from y in degrees, 'search', or 'none' for an axis along y "
                     "[what the series says, otherwise along y]")
        ->check(CLI::Validator(axisProblem, ""))
        ->type_name("DEG|search|none");
    command->add_option("--pixel-size", options->run.pixelSize, "Pixel size in 1/m per pixel [the series']")
        ->check(CLI::PositiveNumber);
    command->add_option("--voltage", options->run.kiloVolts, "High tension in kV [the series']")
        ->check(CLI::PositiveNumber);
    command
        ->add_option("--fine-calibration", options->run.fineCalibration, "File with calibrated pixel sizes")
        ->type_name("FILE");
    addSearchOptions(*command, options->run.search, false);
    addCellOptions(*command, options->run.cell, false);
    command->add_option("--jobs", options->run.axis.jobs, "Processes for the axis search")
        ->check(CLI::Range(1, 256));
    command->add_flag("--keep-volume", options->keepVolume, "Keep the reciprocal volume as volume.mrc");
    command->add_flag("!--no-pictures", options->pictures, "Draw no pictures");
    command->add_flag("--json", options->json, "Print the summary as JSON");
    command->footer("Example:\n  vrk run series.mrc -o result --tilt-axis search");
    command->callback([options, command, &host] { runSeries(*options, givenOptions(*command), host); });
}

}  // namespace vrk::app
