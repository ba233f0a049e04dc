#include <Eigen/Dense>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <numbers>

#include "commands/Commands.h"
#include "console/AxisOption.h"
#include "console/MemoryOption.h"
#include "pictures/Pictures.h"
#include "pictures/RunPictures.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/report/Report.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/Run.h"
#include "pipeline/simulation/Simulation.h"

namespace vrk::app {
namespace {

using Eigen::Matrix3d;
using Json = nlohmann::ordered_json;

// What counts as found again; 256 pixels must do. Positions along the tilt are as coarse as its steps.
constexpr double kLengthLimit = 0.1;       // percent, for steps of a degree
constexpr double kAngleLimit = 0.06;       // degrees, for the same
constexpr double kAxisLimit = 0.2;         // degrees
constexpr double kIndexedLimit = 95.0;     // percent
constexpr double kBaseVectorLimit = 0.02;  // of a true base vector

struct DemoArguments {
    std::filesystem::path folder = "vrk-demo";
    std::string cell = "15.1,8.9,9.8,90,104.2,90";
    std::string centring = "C";
    std::string tiltAxis;
    double step = 1.0;
    bool json = false;
    SimulationSettings settings;
};

/// One line of the comparison.
struct Check {
    std::string name;
    std::string truth;
    std::string found;
    std::string difference;
    bool ok = true;
};

/// What is compared, of truth or result: the primitive cell in the true setting and its Bravais type.
struct LatticeFacts {
    std::array<double, 6> cell{};
    double volume = 0.0;
    std::string bravais;
};

struct Comparison {
    LatticeFacts truth;
    LatticeFacts found;
    Eigen::Matrix3i transformation;  ///< true reciprocal base = found base * this
    bool sameLattice = false;
    double axisError = 0.0;  ///< degrees, of the axis as a line
    int expectedHandedness = 0;
    double percentIndexed = 0.0;
    std::vector<Check> checks;

    bool ok() const {
        return std::all_of(checks.begin(), checks.end(), [](const Check& check) { return check.ok; });
    }
};

SimulationSettings settingsOf(const DemoArguments& options) {
    SimulationSettings settings = options.settings;
    settings.cell = cellNumbers(options.cell, "--cell");
    settings.centring = options.centring[0];
    const int half = static_cast<int>(std::floor(60.0 / options.step + 1e-9));
    for (int i = -half; i <= half; ++i)
        settings.tilts.push_back(i * options.step);
    settings.stated.axis = options.tiltAxis.empty();
    return settings;
}

SimulationTruth writeSimulation(const DemoArguments& options, const std::filesystem::path& series,
                                Host& host) {
    const SimulatedSeries simulated = [&] {
        const Stage stage(host.session(), "simulate");
        return simulateSeries(settingsOf(options), &host.session().progress());
    }();
    host.session().checkCanceled();
    writeData(*simulated.series, series, host.session());
    OutputFile truth(options.folder / "series.truth.json");
    std::ofstream stream(truth.path());
    stream << simulated.truth.toJson() << '\n';
    stream.close();
    if (!stream) throw Failure("cannot write into " + options.folder.string() + "; check the free space");
    truth.commit();
    return simulated.truth;
}

/// Reciprocal base vectors, given one after the other, as columns.
template <class Rows>
Matrix3d columns(const Rows& rows) {
    Matrix3d matrix;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            matrix(j, i) = rows[static_cast<std::size_t>(i)][static_cast<std::size_t>(j)];
    return matrix;
}

/// The direct cell of a reciprocal base in voxels.
std::array<double, 6> directCell(const Matrix3d& reciprocal, double pixelSize) {
    const Matrix3d direct = reciprocal.inverse().transpose() * (1e10 / pixelSize);
    const auto angle = [&](int i, int j) {
        return std::acos(direct.col(i).normalized().dot(direct.col(j).normalized())) * 180.0 /
               std::numbers::pi;
    };
    return {direct.col(0).norm(), direct.col(1).norm(), direct.col(2).norm(),
            angle(1, 2),          angle(0, 2),          angle(0, 1)};
}

std::string trueBravaisType(const SimulationTruth& truth) {
    double vectors[3][3];
    for (std::size_t i = 0; i < 3; ++i)
        std::copy(truth.primitiveVectors[i].begin(), truth.primitiveVectors[i].end(), vectors[i]);
    const UnitCell cell(vectors[0], vectors[1], vectors[2], truth.pixelSize, false, true, LATTICE::aP);
    return LATTICE::shortName(LatticeSymmetry::best(cell, {1e-4, 1e-6}).bravaisType);
}

/// Both bases span the same lattice when a matrix of integers with determinant 1 or -1 connects them.
void compareLattices(const SimulationTruth& truth, const RunResult& result, Comparison& comparison) {
    const Matrix3d known = columns(truth.primitiveVectors);
    const Matrix3d& found = result.indexed.lattice().basis;
    const Matrix3d connection = found.inverse() * known;
    const Matrix3d rounded = connection.array().round().matrix();
    comparison.transformation = rounded.cast<int>();
    const Matrix3d difference = found * rounded - known;
    double largest = 0.0;
    for (int i = 0; i < 3; ++i)
        largest = std::max(largest, difference.col(i).norm() / known.col(i).norm());
    comparison.sameLattice =
        std::abs(std::abs(rounded.determinant()) - 1.0) < 0.5 && largest < kBaseVectorLimit;

    comparison.truth.cell = directCell(known, truth.pixelSize);
    comparison.truth.volume = std::pow(1e10 / truth.pixelSize, 3) / std::abs(known.determinant());
    comparison.truth.bravais = trueBravaisType(truth);
    comparison.found.cell =
        directCell(comparison.sameLattice ? found * rounded : found, result.facts().pixelSize);
    comparison.found.volume = result.indexed.refined.lattice.volume;
    comparison.found.bravais = LATTICE::shortName(result.indexed.symmetry().bravaisType);
}

Comparison compare(const SimulationTruth& truth, const RunResult& result, double step) {
    const double lengthLimit = kLengthLimit * std::max(step, 1.0);
    const double angleLimit = kAngleLimit * std::max(step, 1.0);
    Comparison comparison;
    compareLattices(truth, result, comparison);
    std::vector<Check>& checks = comparison.checks;
    const LatticeFacts& known = comparison.truth;
    const LatticeFacts& found = comparison.found;
    constexpr std::array<const char*, 6> names = {"a", "b", "c", "alpha", "beta", "gamma"};
    for (std::size_t i = 0; i < 6; ++i) {
        const bool length = i < 3;
        const double error =
            length ? 100.0 * (found.cell[i] / known.cell[i] - 1.0) : found.cell[i] - known.cell[i];
        checks.push_back({names[i], formatted(length ? "%.4f A" : "%.3f deg", known.cell[i]),
                          formatted(length ? "%.4f A" : "%.3f deg", found.cell[i]),
                          formatted(length ? "%+.3f %%" : "%+.3f deg", error),
                          std::abs(error) <= (length ? lengthLimit : angleLimit)});
    }
    checks.push_back({"volume", formatted("%.2f A^3", known.volume), formatted("%.2f A^3", found.volume),
                      formatted("%+.3f %%", 100.0 * (found.volume / known.volume - 1.0)),
                      std::abs(found.volume / known.volume - 1.0) <= 3.0 * lengthLimit / 100.0});
    checks.push_back(
        {"lattice", "", comparison.sameLattice ? "the same" : "another", "", comparison.sameLattice});
    checks.push_back({"Bravais type", known.bravais, found.bravais, "", known.bravais == found.bravais});

    // Angles that differ by a half turn name the same line, seen with the other sense of tilt.
    const double turn = result.refinedAxis() - truth.axis;
    comparison.axisError = std::remainder(turn, 180.0);
    checks.push_back(
        {"tilt axis", formatted("%.2f deg", truth.axis), formatted("%.2f deg", result.refinedAxis()),
         formatted("%+.2f deg", comparison.axisError), std::abs(comparison.axisError) <= kAxisLimit});
    const bool opposite = std::abs(std::remainder(turn, 360.0)) > 90.0;
    comparison.expectedHandedness = opposite ? -truth.handedness : truth.handedness;
    const bool decided = result.indexed.refined.decided;
    checks.push_back({"handedness", formatted("%+d", comparison.expectedHandedness),
                      decided ? formatted("%+d", result.indexed.refined.handedness()) : "undecided", "",
                      decided && result.indexed.refined.handedness() == comparison.expectedHandedness});
    comparison.percentIndexed =
        100.0 * result.indexed.refined.lattice.indexed /
        static_cast<double>(std::max<std::size_t>(result.indexed.level.reflections.size(), 1));
    checks.push_back({"reflections", std::to_string(truth.reflectionsRecorded) + " recorded",
                      std::to_string(result.indexed.level.reflections.size()) + " found",
                      formatted("%.1f %% indexed", comparison.percentIndexed),
                      comparison.percentIndexed >= kIndexedLimit});
    return comparison;
}

void print(std::ostream& out, const DemoArguments& options, const SimulationTruth& truth,
           const RunResult& result, const Comparison& comparison) {
    const std::array<double, 6>& cell = truth.conventionalCell;
    out << formatted("simulated: %d frames of %d x %d, cell %g %g %g %g %g %g, centring %c",
                     result.facts().size[2], result.facts().size[0], result.facts().size[1], cell[0], cell[1],
                     cell[2], cell[3], cell[4], cell[5], truth.centring)
        << formatted("\nanalysed in %.1f s; the primitive cell against the truth:\n\n",
                     result.seconds.total.seconds)
        << formatted("%-14s%16s%16s%18s\n", "", "truth", "found", "difference");
    for (const Check& check : comparison.checks)
        out << formatted("%-14s%16s%16s%18s%s\n", check.name.c_str(), check.truth.c_str(),
                         check.found.c_str(), check.difference.c_str(), check.ok ? "" : "   !");
    out << "\nresults and pictures (hk0.png, projection_z.png, ...): " << options.folder.string() << '\n';
    if (comparison.ok()) out << "ok\n";
}

Json toJson(const LatticeFacts& facts, double axis, int handedness) {
    const std::array<double, 6>& c = facts.cell;
    return {{"a", c[0]},
            {"b", c[1]},
            {"c", c[2]},
            {"alpha", c[3]},
            {"beta", c[4]},
            {"gamma", c[5]},
            {"volume", facts.volume},
            {"bravais", facts.bravais},
            {"tilt_axis_deg", axis},
            {"handedness", handedness}};
}

Json toJson(const DemoArguments& options, const SimulationTruth& truth, const RunResult& result,
            const Comparison& comparison) {
    Json failed = Json::array();
    for (const Check& check : comparison.checks)
        if (!check.ok) failed.push_back(check.name);
    return {{"folder", options.folder.string()},
            {"truth", toJson(comparison.truth, truth.axis, comparison.expectedHandedness)},
            {"found", toJson(comparison.found, result.refinedAxis(), result.indexed.refined.handedness())},
            {"same_lattice", comparison.sameLattice},
            {"percent_indexed", comparison.percentIndexed},
            {"seconds", result.seconds.total.seconds},
            {"failed", failed},
            {"ok", comparison.ok()}};
}

void demo(const DemoArguments& options, const std::string& commandText, Host& host) {
    ResultFolder results(options.folder);
    const std::filesystem::path& folder = results.path();
    const std::filesystem::path series = options.folder / "series.mrc";
    host.openLog(folder / "vrk.log", "info",
                 {"demo: cell " + options.cell + ", centring " + options.centring});
    const SimulationTruth truth = writeSimulation(options, series, host);
    RunOptions choices;
    choices.axis.folder = folder / "axis";
    setAxis(choices.axis, options.tiltAxis);
    const RunRecord record = {commandText, series, recordFiles({series})};
    const RunResult result = run(series, choices, host.session());
    host.session().beginPart(kRunParts, kRunParts, "write the results");
    writeResultFiles(result, folder, host.session());
    drawRunPictures(result, series.filename().string(), folder);
    writeSummaryAndReport(record, result, host.warnings(), results.written(), true, folder);
    host.closeLog();
    results.commit();
    host.session().endParts();
    const Comparison comparison = compare(truth, result, options.step);
    if (options.json)
        host.out() << jsonText(toJson(options, truth, result, comparison), 2) << '\n';
    else
        print(host.out(), options, truth, result, comparison);
    host.out().flush();
    if (comparison.ok()) return;
    std::string names;
    for (const Check& check : comparison.checks)
        if (!check.ok) names += (names.empty() ? "" : ", ") + check.name;
    throw Failure("the result differs from the truth (" + names + "); its log is " +
                  (options.folder / "vrk.log").string());
}

}  // namespace

void addDemoCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<DemoArguments>();
    SimulationSettings& settings = options->settings;
    settings.axis = 37.0;
    Command command =
        line.command("demo", "Simulate a tilt series, run it and compare the result with the truth");
    command.option("-o,--output", options->folder, "Folder for series, results and pictures")
        .showDefault()
        .typeName("FOLDER");
    command.option("--cell", options->cell, "a,b,c,alpha,beta,gamma in Angstrom and degrees")
        .showDefault()
        .typeName("CELL");
    command.option("--centring", options->centring, "Centring of the cell; R in hexagonal axes")
        .oneOf({"P", "A", "B", "C", "I", "F", "R"})
        .showDefault();
    command.option("--size", settings.detector.size, "Pixels along each edge of a frame")
        .range(64, 2048)
        .showDefault()
        .typeName("INT");
    command.option("--step", options->step, "Step of the tilts from -60 to 60 degrees")
        .range(0.5, 5.0)
        .showDefault()
        .typeName("DEG");
    command.option("--axis", settings.axis, "True angle of the tilt axis from y, degrees")
        .range(-180.0, 180.0)
        .showDefault()
        .typeName("DEG");
    addAxisOption(command, options->tiltAxis);
    command.option("--seed", settings.seed, "Seed of everything random").showDefault().typeName("INT");
    command.flag("--json", options->json, "Print the comparison as JSON");
    addMemoryOption(command, &host);
    command.footer("Example:\n  vrk demo -o vrk-demo --cell 12.02,12.02,12.02,90,90,90 --centring I");
    command.action([options, &line, &host] { demo(*options, line.text(), host); });
}

}  // namespace vrk::app
