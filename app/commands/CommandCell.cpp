#include <array>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "console/ParameterOptions.h"
#include "crystallography/CellFileImportExport.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/UnitCellParameters.h"
#include "pipeline/formats/CellEvaluationFiles.h"
#include "pipeline/run/PeakCell.h"
#include "pipeline/run/ResultFiles.h"

namespace vrk::app {
namespace {

using Eigen::Vector3d;
using Json = nlohmann::ordered_json;

struct CellArguments {
    std::string peaks;
    std::string output;
    LogOptions log;
    std::string dump;
    std::string report;
    std::string merge = "auto";
    PeakCellOptions search;
    bool json = false;
};

/// "auto", "none" or a distance in voxels.
std::optional<double> mergeDistanceOf(const std::string& text) {
    constexpr double most = 50.0;
    if (text == "auto") return std::nullopt;
    if (text == "none") return 0.0;
    double distance = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), distance);
    if (error != std::errc() || end != text.data() + text.size() || !(distance > 0.0 && distance <= most))
        throw Failure(
            "--merge is auto, none, or a distance of more than 0 and at most 50 voxels, not " + text,
            FailureKind::Usage);
    return distance;
}

void writeCell(const std::filesystem::path& path, UnitCell cell, Host& host) {
    OutputFile file(path);
    if (!CellFileImportExport::writeCellFile_version_2(file.path().string(), &cell))
        throw Failure("cannot write " + path.string() + ": " + host.session().lastError());
    file.commit();
}

/// The cell of a further crystal; in 1/voxel where there is no scale.
CellParameters directCell(const UnitCell& reciprocal) {
    return parametersOf(*std::unique_ptr<UnitCell>(reciprocal.getReciprocalCell()));
}

Json toJson(const FurtherPeakCell& other, bool hasScale) {
    Json json = {{"bravais", LATTICE::shortName(other.symmetry.bravaisType)},
                 {"cell", nullptr},
                 {"share", other.share},
                 {"confidence", nameOf(other.verdict.level)},
                 {"reasons", other.verdict.reasons},
                 {"same_cell", other.sameCell},
                 {"turn_deg", nullptr}};
    if (hasScale) json["cell"] = cellParametersJson<Json>(directCell(other.reciprocal));
    if (other.turn) json["turn_deg"] = *other.turn;
    std::array<std::array<double, 3>, 3> vectors{};
    UnitCell(other.reciprocal).getBase(vectors[0].data(), vectors[1].data(), vectors[2].data());
    json["reciprocal_vectors_px"] = vectors;
    return json;
}

/// The options that lead to the same answer; empty when no one set of them does.
std::string reproducingOptions(const CellArguments& options, const PeakCell& result) {
    if (!result.isReproducible) return "";
    const CellOptions& given = options.search.cell;
    std::string text =
        formatted("--min-length %.12g --max-length %.12g --clustering %s", result.parameter.getMinLength(),
                  result.parameter.getMaxLength(), nameOf(given.clustering));
    const auto add = [&](const char* option, const std::optional<double>& value) {
        if (value) text += formatted(" %s %.12g", option, *value);
    };
    if (given.clustering != ClusteringMethod::FSC)
        text += formatted(" --eps %.12g --min-points %d", result.parameter.getDBSCANEps(),
                          result.parameter.getDBSCANMinPts());
    add("--refine-clusters", given.refineClusters);
    add("--angle-a", given.angleA);
    add("--angle-b", given.angleB);
    add("--det-limit", given.detLimit);
    add("--grid-size", given.gridSize);
    if (given.fullSpace) text += " --full-space";
    if (options.search.pixelSize > 0.0) text += formatted(" --pixel-size %.12g", options.search.pixelSize);
    if (options.search.kiloVolts > 0.0) text += formatted(" --voltage %.12g", options.search.kiloVolts);
    if (options.search.crystals != PeakCellOptions().crystals)
        text += formatted(" --crystals %d", options.search.crystals);
    if (result.mergeDistance > 0.0)
        text += formatted(" --merge %.12g", result.mergeDistance);
    else if (options.merge != "auto")
        text += " --merge none";
    return text;
}

/// Null where the cell was refined without an ellipse.
const RefinedInstrument* refinedEllipse(const PeakCell& result) {
    const bool isRefined = result.indexed && result.indexed->instrument.valid &&
                           result.indexed->instrument.uses(InstrumentTerm::EllipseCosine);
    return isRefined ? &result.indexed->instrument : nullptr;
}

Json toJson(const CellArguments& options, const PeakCell& result) {
    Json json = {{"peaks", options.peaks}, {"cell_file", options.output}, {"cell", nullptr}};
    if (result.hasScale()) {
        const std::unique_ptr<UnitCell> direct(result.reciprocal.getReciprocalCell());
        json["cell"] = cellParametersJson<Json>(parametersOf(*direct));
        json["cell"]["volume"] = direct->getExactVolume();
    }
    json["lattice"] = {{"bravais", LATTICE::shortName(result.symmetry.bravaisType)},
                       {"centring", std::string(1, result.symmetry.centring)},
                       {"misfit_deg", result.symmetry.qualityIndex},
                       {"conventional", nullptr}};
    if (result.hasScale())
        json["lattice"]["conventional"] = cellParametersJson<Json>(result.symmetry.measured);
    std::array<std::array<double, 3>, 3> vectors{};
    result.reciprocal.getBase(vectors[0].data(), vectors[1].data(), vectors[2].data());
    json["reciprocal_vectors_px"] = vectors;
    const Vector3d& origin = result.answer.lattice.origin;
    json["origin_px"] = {origin[0], origin[1], origin[2]};
    json["pixel_size"] = result.hasScale() ? Json(result.pixelSize()) : Json(nullptr);
    json["distortion"] = nullptr;
    if (const RefinedInstrument* instrument = refinedEllipse(result))
        json["distortion"] = {{"ellipse", instrument->ellipse()},
                              {"azimuth_deg", instrument->ellipseAzimuth()}};
    json["voltage_kv"] =
        result.wavelength > 0.0 ? Json(EwaldCurvature::kiloVolts(result.wavelength)) : Json(nullptr);
    const bool merged = result.mergeDistance > 0.0;
    json["merged"] =
        merged ? Json{{"peaks", result.peaks}, {"distance_px", result.mergeDistance}} : Json(nullptr);
    json["reflections"] = {{"found", result.points.size()},
                           {"indexed", result.answer.score.indexed},
                           {"fraction_indexed", result.answer.score.fraction()},
                           {"radius_px", result.answer.score.radius}};
    const Verdict& verdict = result.verdict;
    json["confidence"] = {{"level", nameOf(verdict.level)},
                          {"reasons", verdict.reasons},
                          {"evidence", result.answer.score.evidence},
                          {"fraction_by_chance", result.answer.score.chance},
                          {"runner_up_evidence", result.rivalEvidence}};
    json["crystals"] = Json::array();
    for (const FurtherPeakCell& other : result.others)
        json["crystals"].push_back(toJson(other, result.hasScale()));
    json["search"] = options.search.cell.isGiven() ? "parameters" : "automatic";
    json["parameters"] = cellSettings(result.parameter, options.search.cell.clustering);
    json["command"] = reproducingOptions(options, result);
    return json;
}

std::string columnsOf(const CellParameters& p, const char* edge) {
    std::string text;
    for (const double length : {p.a, p.b, p.c})
        text += formatted(edge, length);
    return text + formatted(" %8.3f %8.3f %8.3f", p.alpha, p.beta, p.gamma);
}

void report(std::ostream& out, const FurtherPeakCell& other, std::size_t number, bool hasScale) {
    const std::string cell = hasScale ? columnsOf(directCell(other.reciprocal), " %9.4f")
                                      : columnsOf(parametersOf(other.reciprocal), " %9.4f");
    out << formatted("%-19s", ("crystal " + std::to_string(number) + (hasScale ? ", A" : ", voxels")).c_str())
        << cell << '\n'
        << formatted("                    %.1f %% of the reflections, %s, confidence %s", 100.0 * other.share,
                     LATTICE::shortName(other.symmetry.bravaisType), nameOf(other.verdict.level))
        << (other.turn ? formatted(", turned by %.1f degrees", *other.turn) : "") << '\n';
}

void report(std::ostream& out, const CellArguments& options, const PeakCell& result) {
    out << "                          a         b         c     alpha     beta    gamma      volume\n";
    if (result.hasScale()) {
        const std::unique_ptr<UnitCell> direct(result.reciprocal.getReciprocalCell());
        out << "reduced cell, A    " << columnsOf(parametersOf(*direct), " %9.4f")
            << formatted(" %11.2f\n", direct->getExactVolume());
        if (result.symmetry.number > 0 && result.symmetry.bravaisType != LATTICE::aP)
            out << formatted("%-19s", (std::string("lattice ") +
                                       LATTICE::shortName(result.symmetry.bravaisType) + ", A")
                                          .c_str())
                << columnsOf(result.symmetry.measured, " %9.4f") << '\n';
    }
    out << "reciprocal, voxels " << columnsOf(parametersOf(result.reciprocal), " %9.4f")
        << formatted(" %11.2f\n", result.reciprocal.getExactVolume());
    const LatticeScore& score = result.answer.score;
    const Verdict& verdict = result.verdict;
    if (const RefinedInstrument* instrument = refinedEllipse(result))
        out << formatted(
            "distortion          ellipse of %.2f %%, %.0f degrees from the normal of the tilt axis; "
            "taken out\n",
            100.0 * instrument->ellipse(), instrument->ellipseAzimuth());
    if (result.wavelength > 0.0)
        out << formatted("curvature           of %.0f kV, taken out\n",
                         EwaldCurvature::kiloVolts(result.wavelength));
    out << formatted("lattice             %s, misfit %.2f degrees\n",
                     LATTICE::shortName(result.symmetry.bravaisType), result.symmetry.qualityIndex)
        << formatted(
               "indexed             %d of %d reflections (%.1f %%; %.1f %% by chance) within %g voxels\n",
               score.indexed, score.points, 100.0 * score.fraction(), 100.0 * score.chance, score.radius)
        << "confidence          " << nameOf(verdict.level) << '\n';
    for (const std::string& reason : verdict.reasons)
        out << "  because           " << reason << '\n';
    for (std::size_t i = 0; i < result.others.size(); ++i)
        report(out, result.others[i], i + 2, result.hasScale());
    const std::string parameters = reproducingOptions(options, result);
    if (result.mergeDistance > 0.0)
        out << formatted("merged              %zu peaks to %zu reflections, within %g voxels\n", result.peaks,
                         result.points.size(), result.mergeDistance);
    out << "parameters          "
        << (parameters.empty() ? "several sets; none of them alone leads to this cell" : parameters) << '\n'
        << "written             " << options.output << '\n';
}

/// Refuses names for results that are the reflections' or each other's.
void checkNames(const CellArguments& options) {
    const auto same = [](const std::string& a, const std::string& b) {
        std::error_code error;
        return !a.empty() && !b.empty() &&
               (std::filesystem::path(a).lexically_normal() == std::filesystem::path(b).lexically_normal() ||
                std::filesystem::equivalent(a, b, error));
    };
    if (same(options.peaks, options.output))
        throw Failure(
            "the cell file would replace the reflections " + options.peaks + "; give -o another name",
            FailureKind::Usage);
    for (const std::string& other : {options.peaks, options.output})
        if (same(options.report, other))
            throw Failure("the report would replace " + other + "; give --report another name",
                          FailureKind::Usage);
}

void runCellCommand(const CellArguments& options, Host& host) {
    host.openLog(options.log);
    checkNames(options);
    PeakCellOptions search = options.search;
    search.mergeDistance = mergeDistanceOf(options.merge);
    search.dump = options.dump;
    const PeakCell result = findCell(readPeaks(options.peaks), search, host.session());
    if (!result.hasScale())
        host.warn("the pixel size is not known, so the cell has no scale; give it with --pixel-size");
    if (!options.report.empty() || !options.dump.empty()) {
        const CellEvaluation evidence = evaluate(result, search, host.session());
        if (!options.report.empty()) writeEvaluation(evidence, options.report);
    }
    writeCell(options.output, result.reciprocal, host);
    for (std::size_t i = 0; i < result.others.size(); ++i)
        writeCell(nameOfCrystal(options.output, i + 2), result.others[i].reciprocal, host);
    if (options.json)
        host.out() << jsonText(toJson(options, result), 1) << '\n';
    else
        report(host.out(), options, result);
}

}  // namespace

void addCellCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<CellArguments>();
    Command command = line.command("cell", "Find the cell of a list of reflections");
    command
        .option("peaks", options->peaks, "Peak file, or a list of x y z [intensity] in voxels about 0, 0, 0")
        .required()
        .typeName("PEAKS");
    command.option("-o,--output", options->output, "Cell file to write").required().typeName("CELL");
    command.option("--pixel-size", options->search.pixelSize, "1/m per voxel [that of the peak file]")
        .positive();
    command
        .option("--voltage", options->search.kiloVolts,
                "High tension in kV, for the curvature of the Ewald sphere [the usual one that fits best]")
        .positive();
    addCellOptions(command, options->search.cell, false);
    command
        .option("--merge", options->merge,
                "Peaks this many voxels apart are one reflection that several frames show; auto: found "
                "where the list looks like that; none [auto]")
        .typeName("auto|none|VOXELS");
    command
        .option("--crystals", options->search.crystals,
                "Crystals that are looked for at most, where over a tenth of the reflections lies on none; "
                "cell files of others are named as the first, with .crystal2 in the name")
        .range(1, 9);
    command
        .option("--report", options->report,
                "Write what the cell rests on here, and as JSON beside it: clusters, choice, reduction, "
                "symmetry, displacements")
        .typeName("FILE.txt");
    command
        .option("--debug-dump", options->dump,
                "Write difference vectors, clusters and their lines into this folder, with a gnuplot script "
                "that shows them")
        .typeName("FOLDER");
    addLogOptions(command, options->log);
    command.flag("--json", options->json, "Print the result as JSON");
    addMemoryOption(command, &host);
    command.footer(
        "Difference vectors are clustered with several sets of parameters, and the lattice that explains "
        "the\n"
        "reflections best wins. An option fixes one value; the others are found. The parameters that are\n"
        "printed lead to the same cell when they are given.\n\n"
        "Example:\n"
        "  vrk cell peaks.txt -o cell.txt");
    command.action([options, &host] { runCellCommand(*options, host); });
}

}  // namespace vrk::app
