#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "commands/Commands.h"
#include "console/AxisOption.h"
#include "console/JobsOption.h"
#include "console/LogOption.h"
#include "console/MemoryOption.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/run/Run.h"
#include "pipeline/run/RunFolder.h"

namespace vrk::app {
namespace {

struct CalibrateArguments {
    std::vector<std::string> series;
    std::filesystem::path output;
    std::string cell;
    std::string tiltAxis;
    LogOptions log;
    RunOptions run;
    bool json = false;
};

std::optional<std::array<double, 6>> knownCell(const std::string& text) {
    if (text.empty()) return std::nullopt;
    const std::vector<double> numbers = numbersOf(text, ',', "--cell");
    if (numbers.size() != 6)
        throw Failure("--cell takes a,b,c in Angstrom and alpha,beta,gamma in degrees, not '" + text + "'",
                      FailureKind::Usage);
    cellFromNumbers(numbers, 'P');  // refuses what is no cell
    std::array<double, 6> cell{};
    std::copy(numbers.begin(), numbers.end(), cell.begin());
    return cell;
}

/// Throws Failure when nothing is found, or nothing that can be relied on.
CalibrationInput inputOf(const std::string& name, const CalibrateArguments& options, Host& host) {
    if (std::filesystem::is_directory(name)) return readRunFolder(name);
    RunOptions choices = options.run;
    setAxis(choices.axis, options.tiltAxis);
    choices.intensities.wanted = false;
    const RunResult result = run(name, choices, host.session());
    if (result.indexed.verdict.lattice == Confidence::Low)
        throw Failure(name + " gives a lattice of low confidence, which says nothing of an instrument",
                      FailureKind::NothingFound);
    return calibrationInput(name, result);
}

/// Of every series that can be used; the others are told. Throws Failure where there is none.
std::vector<SeriesCalibration> calibrations(const CalibrateArguments& options, Host& host) {
    const std::optional<std::array<double, 6>> cell = knownCell(options.cell);
    std::vector<SeriesCalibration> results;
    for (const std::string& name : options.series) {
        try {
            results.push_back(calibrate(inputOf(name, options, host), cell));
        } catch (const Failure& failure) {
            const bool mayGoOn = options.series.size() > 1 && failure.kind() == FailureKind::NothingFound;
            if (!mayGoOn) throw;
            host.warn(std::string(failure.what()) + "; it was left out");
        }
    }
    if (results.empty())
        throw Failure("none of the series can be used to calibrate", FailureKind::NothingFound);
    return results;
}

void print(Host& host, const std::vector<SeriesCalibration>& series, const CombinedCalibration& result,
           const CalibrateArguments& options) {
    std::ostream& out = host.out();
    for (const SeriesCalibration& one : series) {
        const RefinedLattice& lattice = one.instrument.lattice;
        out << one.name << ": " << (one.hasCell ? "known cell" : LATTICE::shortName(one.type))
            << formatted(", %d reflections indexed, residual %.2f -> %.2f voxels\n", lattice.indexed,
                         one.instrument.rmsBefore, lattice.rms);
    }
    out << '\n';
    for (const auto& [key, term] : valuesOf(result.calibration)) {
        out << formatted("%-20s ", key.c_str()) << withUncertainty(term.value, term.sigma);
        const auto scatter =
            std::find_if(result.scatters.begin(), result.scatters.end(),
                         [&key = key](const CalibrationScatter& one) { return one.key == key; });
        if (scatter != result.scatters.end() && scatter->series > 1)
            out << formatted("   %d series, scatter %.2g", scatter->series, scatter->scatter);
        if (term.correlation > 0.0) out << formatted("   correlation up to %.2f", term.correlation);
        out << '\n';
    }
    for (const auto& [key, reason] : result.calibration.notDetermined)
        out << formatted("%-20s ", key.c_str()) << "not determined: " << reason << '\n';
    out << "\nwritten to " << options.output.string()
        << "; use it with 'vrk run SERIES.mrc -o FOLDER --distortion " << options.output.string() << "'\n";
}

void printJson(Host& host, const std::vector<SeriesCalibration>& series, const CombinedCalibration& result) {
    auto json = parsedJson<nlohmann::ordered_json>(instrumentText(result.calibration));
    json["scatter"] = nlohmann::ordered_json::object();
    for (const CalibrationScatter& one : result.scatters)
        json["scatter"][one.key] = {{"series", one.series}, {"deviation", one.scatter}};
    json["series"] = nlohmann::ordered_json::array();
    for (const SeriesCalibration& one : series)
        json["series"].push_back({{"name", one.name},
                                  {"bravais", LATTICE::shortName(one.type)},
                                  {"indexed", one.instrument.lattice.indexed},
                                  {"residual_before_px", one.instrument.rmsBefore},
                                  {"residual_px", one.instrument.lattice.rms}});
    host.out() << jsonText(json, 2) << '\n';
}

void calibrateSeries(const CalibrateArguments& options, Host& host) {
    host.openLog(options.log);
    const std::vector<SeriesCalibration> series = calibrations(options, host);
    const CombinedCalibration result = combined(series);
    if (valuesOf(result.calibration).empty())
        throw Failure("the series determine nothing of the instrument: " +
                          result.calibration.notDetermined.front().second,
                      FailureKind::NothingFound);
    writeInstrumentFile(options.output, result.calibration);
    if (options.json)
        printJson(host, series, result);
    else
        print(host, series, result, options);
}

}  // namespace

void addCalibrateCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<CalibrateArguments>();
    Command command = line.command(
        "calibrate", "Find distortion, tilt axis, tilt and length scale of the instrument, for --distortion");
    command
        .option("series", options->series,
                "Tilt series (.mrc) of one microscope at one camera length, or folders of 'vrk run'")
        .required()
        .typeName("SERIES.mrc|FOLDER ...");
    command.option("-o,--output", options->output, "File to write").required().typeName("FILE.json");
    command
        .option(
            "--cell", options->cell,
            "Conventional cell of the crystal, a,b,c in Angstrom and alpha,beta,gamma in degrees: gives the "
            "scale of the pixel size, and lets a crystal of any symmetry tell the distortion")
        .typeName("A,B,C,AL,BE,GA");
    addAxisOption(command, options->tiltAxis);
    command.option("--pixel-size", options->run.pixelSize, "Pixel size in 1/m per pixel [the series']")
        .positive();
    command.option("--voltage", options->run.kiloVolts, "High tension in kV [the series']").positive();
    command.flag("--json", options->json, "Print the result as JSON");
    addJobsOption(command, options->run.jobs);
    addLogOptions(command, options->log);
    addMemoryOption(command, &host);
    command.footer(
        "Example:\n  vrk calibrate garnet.mrc --cell 11.95,11.95,11.95,90,90,90 -o distortion.json\n"
        "  vrk run unknown.mrc -o result --distortion distortion.json");
    command.action([options, &host] { calibrateSeries(*options, host); });
}

}  // namespace vrk::app
