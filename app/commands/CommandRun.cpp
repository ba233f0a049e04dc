#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>

#include "commands/Commands.h"
#include "console/AxisOption.h"
#include "console/CentreOption.h"
#include "console/ParameterOptions.h"
#include "console/RunReport.h"
#include "pictures/RunPictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/run/IntensityFiles.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/Run.h"
#include "pipeline/run/RunSummary.h"

namespace vrk::app {
namespace {

struct Options {
    std::filesystem::path series;
    std::filesystem::path folder;
    std::string tiltAxis;
    std::string centre;
    RunOptions run;
    std::string mode;
    std::string formula;
    bool keepVolume = false;
    bool pictures = true;
    bool json = false;
};

std::optional<RotationMode> modeOf(const std::string& name) {
    for (const RotationMode mode :
         {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
        if (name == nameOf(mode)) return mode;
    return std::nullopt;
}

void runSeries(const Options& options, const std::string& given, Host& host) {
    makeFolder(options.folder);
    host.openLog(options.folder / "vrk.log", {"series: " + options.series.string(), "options: " + given});
    RunOptions choices = options.run;
    setAxis(choices.axis, options.tiltAxis);
    choices.intensities.mode = modeOf(options.mode);
    // A slip in it would be a pity after the run.
    if (!options.formula.empty()) parseFormula(options.formula);
    setCentre(choices.centre, options.centre);
    choices.axis.folder = options.folder / "axis";
    const RunResult result = run(options.series, choices, host.session());
    if (options.keepVolume) writeData(*result.volume.voxels, options.folder / "volume.mrc", host.session());
    writeResultFiles(result, options.folder, host.session());
    writeIntensityFiles(result, {options.series.stem().string(), options.formula}, options.folder);
    if (options.pictures) drawRunPictures(result, options.folder);
    const std::string summary = summaryJson(options.series, result, host.warnings());
    writeSummary(options.folder / "summary.json", summary);
    if (options.json)
        host.out() << summary << '\n';
    else
        printSummary(host.out(), result);
}

}  // namespace

void addRunCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<Options>();
    Command command =
        line.command("run", "Find the unit cell of a raw tilt series and index its reflections");
    command.option("series", options->series, "Tilt series (.mrc); 'vrk import' makes one")
        .required()
        .typeName("SERIES.mrc");
    command.option("-o,--output", options->folder, "Folder for the results").required().typeName("FOLDER");
    command
        .option("--tilt-axis", options->tiltAxis,
                "Angle of the tilt axis from y in degrees, 'search', or 'none' for an axis along y "
                "[what the series says, otherwise along y]")
        .check(axisProblem)
        .typeName("DEG|search|none");
    addCentreOption(command, options->centre);
    command.option("--pixel-size", options->run.pixelSize, "Pixel size in 1/m per pixel [the series']")
        .positive();
    command.option("--voltage", options->run.kiloVolts, "High tension in kV [the series']").positive();
    command.option("--fine-calibration", options->run.fineCalibration, "File with calibrated pixel sizes")
        .typeName("FILE");
    addSearchOptions(command, options->run.search, false);
    addCellOptions(command, options->run.cell, false);
    const char* intensities = "Intensities";
    command
        .flag("!--no-integration", options->run.intensities.wanted,
              "Sum intensities over the volume instead of measuring them on the frames")
        .group(intensities);
    command.option("--d-min", options->run.intensities.dMin, "Finest spacing in Angstrom [found]")
        .positive()
        .group(intensities);
    command.option("--gain", options->run.intensities.gain, "Counts that one electron makes [found]")
        .positive()
        .group(intensities);
    command.option("--mode", options->mode, "How the crystal turned [found]")
        .oneOf({nameOf(RotationMode::Continuous), nameOf(RotationMode::Stepwise),
                nameOf(RotationMode::Precession)})
        .typeName("continuous|stepwise|precession")
        .group(intensities);
    command.option("--formula", options->formula, "Formula unit for crystal.ins, as \"Ca3 Al2 Si3 O12\"")
        .group(intensities);
    command
        .option("--crystals", options->run.crystals,
                "Crystals that are looked for at most, where over a tenth of the reflections lies on none")
        .range(1, 9);
    command.option("--jobs", options->run.axis.jobs, "Processes for the axis search").range(1, 256);
    command.flag("--keep-volume", options->keepVolume, "Keep the reciprocal volume as volume.mrc");
    command.flag("!--no-pictures", options->pictures, "Draw no pictures");
    command.flag("--json", options->json, "Print the summary as JSON");
    command.footer("Example:\n  vrk run series.mrc -o result --tilt-axis search");
    command.action([options, command, &host] { runSeries(*options, command.givenOptions(), host); });
}

}  // namespace vrk::app
