#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "console/AxisOption.h"
#include "console/CentreOption.h"
#include "console/JobsOption.h"
#include "console/MemoryOption.h"
#include "console/ParameterOptions.h"
#include "console/RunReport.h"
#include "pictures/Pictures.h"
#include "pictures/RunPictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/base/Workers.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/frames/FileContent.h"
#include "pipeline/report/Report.h"
#include "pipeline/run/IntensityFiles.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/Run.h"

namespace vrk::app {
namespace {

struct RunArguments {
    std::filesystem::path series;
    std::filesystem::path folder;
    std::string tiltAxis;
    std::string centre;
    RunOptions run;
    std::filesystem::path distortion;
    std::string mode;
    std::string formula;
    std::string format;
    LogOptions log;
    bool keepVolume = false;
    bool pictures = true;
    bool json = false;
    bool profile = false;
};

std::optional<RotationMode> modeOf(const std::string& name) {
    for (const RotationMode mode :
         {RotationMode::Continuous, RotationMode::Stepwise, RotationMode::Precession})
        if (name == nameOf(mode)) return mode;
    return std::nullopt;
}

/// "the log, peaks.txt and projections"
std::string listOf(const std::vector<std::string>& names) {
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    return text;
}

/// Writes what the run had, and says in one sentence what is where.
Failure failureOf(const Failure& failure, const RunArguments& options, const RunRemains& remains,
                  ResultFolder& results) {
    const bool isCanceled = failure.kind() == FailureKind::Canceled;
    std::string text = failure.what();
    try {
        if (!isCanceled) writeRemains(remains, results.path());
        if (!isCanceled && options.pictures && remains.volume)
            writeProjections(*remains.volume->voxels, SectionOptions(),
                             {options.series.filename().string(), "", remains.volume->facts.pixelSize},
                             results.path());
    } catch (const Failure& other) {
        text += std::string("; ") + other.what();
    }
    text += (isCanceled ? ": " : "\n") + results.path().string() + " holds " + listOf(results.written());
    if (isCanceled && std::filesystem::exists(options.folder / ResultFolder::kSummary))
        text += "; the results of an earlier run in " + options.folder.string() + " are as they were";
    if (!isCanceled && results.setEarlierAside())
        text += "; the results of an earlier run are in " +
                (options.folder / ResultFolder::kEarlier).string() + " now";
    return Failure(text, failure.kind());
}

/// What is known beside the result.
struct Measured {
    const Workers& workers;
    double copyRate;  ///< 0 when nobody asks
    Workers::Aside& checksums;
};

/// Writes all files, the summary last, and gives up the volume and the frames. \returns its text
std::string writeResults(const RunArguments& options, RunRecord& record, RunResult& result,
                         const Measured& measured, ResultFolder& results, Host& host) {
    const std::filesystem::path& folder = results.path();
    host.session().beginPart(kRunParts, kRunParts, "write the results", 2);
    if (options.keepVolume) writeData(*result.volume.voxels, folder / "volume.mrc", host.session());
    writeResultFiles(result, folder, host.session());
    host.session().checkCanceled();
    writeIntensityFiles(result, {options.series.stem().string(), options.formula}, options.format, folder);
    host.session().checkCanceled();
    if (options.pictures) drawRunPictures(result, options.series.filename().string(), folder);
    host.session().checkCanceled();
    measured.checksums.finish();
    refuseChanged(record.inputs);
    if (options.profile) record.profile = profileOf(result, measured.workers, measured.copyRate);
    std::string summary =
        writeSummaryAndReport(record, result, host.warnings(), results.written(), options.pictures, folder);
    host.closeLog();
    // The system takes as long to get so much memory back as the checksums take.
    Workers::Aside release([&](std::size_t, std::size_t) {
        result.volume.voxels.reset();
        result.counts.frames.reset();
    });
    results.commit();
    host.session().endParts();
    release.finish();
    return summary;
}

void runSeries(const RunArguments& options, const std::string& given, const std::string& commandText,
               Host& host) {
    RunOptions choices = options.run;
    setAxis(choices.axis, options.tiltAxis);
    setCentre(choices.centre, options.centre);
    if (!options.distortion.empty()) choices.instrument = readInstrumentFile(options.distortion);
    choices.intensities.mode = modeOf(options.mode);
    // What is wrong from the start leaves the folder as it is.
    if (!options.formula.empty()) parseFormula(options.formula);
    refuseUnlessMrc(options.series);
    requireMemoryToRead(options.series);
    const double copyRate = options.profile ? measuredCopyRate() : 0.0;
    const Workers workers(choices.jobs);
    ResultFolder results(options.folder);
    host.openLog(results.path() / "vrk.log", options.log.level,
                 {"series: " + options.series.string(), "options: " + given});
    choices.axis.folder = results.path() / "axis";
    RunRemains remains;
    try {
        RunRecord record = {
            commandText, options.series,
            recordStates({options.series, options.distortion, choices.fineCalibration, choices.centre.file})};
        Workers::Aside checksums([&](std::size_t, std::size_t) { addChecksums(record.inputs); });
        RunResult result = run(options.series, choices, host.session(), &remains);
        const std::string summary =
            writeResults(options, record, result, {workers, copyRate, checksums}, results, host);
        if (options.json)
            host.out() << summary << '\n';
        else
            printSummary(host.out(), result);
        if (record.profile && !options.json) printProfile(host.out(), *record.profile);
    } catch (const Failure& failure) {
        throw failureOf(failure, options, remains, results);
    } catch (const std::exception&) {
        results.setEarlierAside();
        throw;
    }
}

Command describeRun(CommandLine& line, const std::shared_ptr<RunArguments>& options, Host* host) {
    Command command =
        line.command("run", "Find the unit cell of a raw tilt series and index its reflections");
    command.option("series", options->series, "Tilt series (.mrc); 'vrk import' makes one")
        .required()
        .typeName("SERIES.mrc");
    command.option("-o,--output", options->folder, "Folder for the results").required().typeName("FOLDER");
    addAxisOption(command, options->tiltAxis);
    addCentreOption(command, options->centre);
    command.option("--pixel-size", options->run.pixelSize, "Pixel size in 1/m per pixel [the series']")
        .positive();
    command.option("--voltage", options->run.kiloVolts, "High tension in kV [the series']").positive();
    command.option("--fine-calibration", options->run.fineCalibration, "File with calibrated pixel sizes")
        .typeName("FILE");
    command.option("--distortion", options->distortion, "Geometry of the instrument, of 'vrk calibrate'")
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
    command
        .option(
            "--format", options->format,
            "Write the reflections in this format alone: shelx (.hkl and .ins), mtz, cif, xds, frames (.csv) "
            "or pets [all]")
        .oneOf({"shelx", "mtz", "cif", "xds", "frames", "pets"})
        .group(intensities);
    command.option("--formula", options->formula, "Formula unit for crystal.ins, as \"Ca3 Al2 Si3 O12\"")
        .group(intensities);
    command
        .option("--crystals", options->run.crystals,
                "Crystals that are looked for at most, where over a tenth of the reflections lies on none")
        .range(1, 9);
    addJobsOption(command, options->run.jobs);
    command
        .option("--volume-size", options->run.volumeSize,
                "Longest edge of the reciprocal volume, voxels; the middle of larger frames is used [that of "
                "the frames; of very large ones the part with spots]")
        .range(64, 16384);
    command.flag("--keep-volume", options->keepVolume, "Keep the reciprocal volume as volume.mrc");
    command.flag("!--no-pictures", options->pictures, "Draw no pictures");
    addLogLevelOption(command, options->log);
    command.flag("--profile", options->profile,
                 "Print what every step took and moved, against a plain copy of memory");
    command.flag("--json", options->json, "Print the summary as JSON");
    addMemoryOption(command, host);
    command.footer("Example:\n  vrk run series.mrc -o result --tilt-axis search");
    return command;
}

}  // namespace

void addRunOptions(CommandLine& line) {
    const auto options = std::make_shared<RunArguments>();
    describeRun(line, options, nullptr).action([options] {});
}

void addRunCommand(CommandLine& line, Host& host) {
    const auto options = std::make_shared<RunArguments>();
    Command command = describeRun(line, options, &host);
    command.action(
        [options, command, &line, &host] { runSeries(*options, command.givenOptions(), line.text(), host); });
}

}  // namespace vrk::app
