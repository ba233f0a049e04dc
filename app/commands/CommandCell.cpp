#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <numbers>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "cellfinding/CalculateCellIOstuff.h"
#include "commands/Commands.h"
#include "console/ParameterOptions.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/LatticeSymmetry.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/CellEvaluationFiles.h"
#include "pipeline/formats/PeakList.h"
#include "pipeline/latticesearch/CellSearch.h"
#include "pipeline/latticesearch/Confidence.h"

namespace vrk::app {
namespace {

using Eigen::Vector3d;
using Json = nlohmann::ordered_json;

/// The six steps with parameters of the user's form no more difference vectors than this.
constexpr double kMostVectors = 3e7;

struct Options {
    std::string peaks;
    std::string output;
    std::string log;
    std::string dump;
    std::string report;
    double pixelSize = 0.0;
    CellOptions cell;
    bool json = false;
};

struct Result {
    Lattice lattice;
    LatticeScore score;
    Parameter parameter;
    bool automatic = false;
    double rivalEvidence = 0.0;                ///< of the second best lattice
    std::optional<Completeness> completeness;  ///< of a peak file, which tells what was recorded
    std::size_t reflections = 0;
    double pixelSize = 0.0;  ///< 0 is unknown
    UnitCell reciprocal;     ///< reduced; of pixel size 1 when that is unknown
    LatticeCharacter symmetry;
    std::unique_ptr<CellSteps> steps;  ///< that led to the lattice; for a report

    bool hasScale() const { return pixelSize > 0.0; }
};

Verdict verdictOn(const Result& result) {
    LatticeEvidence evidence;
    evidence.score = result.score;
    evidence.rivalEvidence = result.rivalEvidence;
    evidence.completeness = result.completeness;
    return vrk::verdictOn(evidence);
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    char text[300];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

Points pointsOf(const PeakList& peaks, std::vector<double>& weights) {
    Points points;
    points.reserve(peaks.reflections->size());
    for (Reflex* reflex : *peaks.reflections) {
        points.emplace_back(reflex->getCenter(0) - peaks.origin[0], reflex->getCenter(1) - peaks.origin[1],
                            reflex->getCenter(2) - peaks.origin[2]);
        weights.push_back(reflex->getIntensity());
    }
    return points;
}

/// How far the list reaches; lists in other units than voxels show here.
std::string extentText(const Points& points) {
    double farthest = 0.0;
    for (const Vector3d& point : points)
        farthest = std::max(farthest, point.norm());
    std::string text =
        formatted("%zu reflections, the farthest %.4g voxels from the origin", points.size(), farthest);
    if (farthest < 20.0) text += " (is the list in other units? Lengths are in voxels: scale it up)";
    return text;
}

/// Estimates the number of difference vectors from a sample of the points.
double expectedVectors(const Points& points, const Parameter& parameter) {
    const std::size_t step = std::max<std::size_t>(1, points.size() / 200);
    double count = 0.0;
    double sampled = 0.0;
    for (std::size_t i = 0; i < points.size(); i += step, sampled += 1.0)
        for (const Vector3d& other : points) {
            const double length = (other - points[i]).norm();
            count += length > parameter.getMinLength() && length < parameter.getMaxLength();
        }
    const double pairs = 0.5 * count / std::max(sampled, 1.0) * static_cast<double>(points.size());
    return parameter.useHalfDiffVectorSpace() ? pairs : 2.0 * pairs;
}

/// Lets the steps write what they see into a folder while it lives.
class DebugDump {
public:
    explicit DebugDump(const std::string& folder) : m_active(!folder.empty()) {
        if (!m_active) return;
        makeFolder(folder);
        CalculateCellIOstuff::setFolder(folder);
        CalculateCellIOstuff::setWriteData(true);
        CalculateCellIOstuff::setWriteLines(true);
    }
    ~DebugDump() {
        if (!m_active) return;
        CalculateCellIOstuff::setWriteData(false);
        CalculateCellIOstuff::setWriteLines(false);
        CalculateCellIOstuff::setFolder("");
    }
    DebugDump(const DebugDump&) = delete;
    DebugDump& operator=(const DebugDump&) = delete;

    /// Adds the script that shows the files.
    void finish(Host& host) const {
        if (m_active && !CalculateCellIOstuff::writeGnuplotScript())
            throw Failure("the debug dump is not complete: " + host.session().lastError());
    }

private:
    bool m_active;
};

[[noreturn]] void refuse(const std::string& found, const std::string& advice) {
    throw Failure("no cell was found with these parameters: " + found + "; " + advice +
                      ", or leave the parameters out and have them found",
                  FailureKind::NothingFound);
}

/// The six steps with the parameters as they are. The peak file has been cut off around the beam when it was
/// written.
void searchByParameters(const Options& options, const Points& points, Result& result, Host& host) {
    Parameter& parameter = result.parameter;
    options.cell.applyTo(parameter);
    // What the steps complain about is either one trial of many or part of the message below.
    const QuietLog quiet(host.session(), QuietLog::Keep::UntilReleased);
    const double expected = expectedVectors(points, parameter);
    if (expected > kMostVectors)
        throw Failure(formatted("about %.2g difference vectors are shorter than --max-length %g, too many to "
                                "cluster; use a smaller --max-length",
                                expected, parameter.getMaxLength()),
                      FailureKind::Usage);
    const DebugDump dump(options.dump);
    auto steps =
        std::make_unique<CellSteps>(points, parameter, options.cell.clustering, &host.session().progress());
    dump.finish(host);
    host.session().checkCanceled();
    if (steps->vectors() == 0)
        refuse(extentText(points) + formatted("; no difference vector is longer than %g and shorter than %g",
                                              parameter.getMinLength(), parameter.getMaxLength()),
               "use a smaller --min-length or a larger --max-length");
    const std::string vectors =
        formatted("%zu reflections, %d difference vectors", points.size(), steps->vectors());
    if (steps->clusters().empty())
        refuse(vectors + ", no clusters", options.cell.clustering == ClusteringMethod::FSC
                                              ? "use a larger --max-length"
                                              : "use a smaller --min-points or a larger --eps");
    const std::string found = vectors + formatted(", %zu clusters", steps->clusters().size());
    const auto chosen = steps->chosen();
    if (!chosen)
        refuse(found + ", no three of them that span a cell",
               "use a smaller --min-points, --eps, --angle-a or --angle-b, or a larger --max-length");
    const auto shortened = steps->shortened(*chosen);
    if (!shortened)
        refuse(found + ", whose lattice has no three vectors within the limits",
               "use a smaller --angle-a, --angle-b or --det-limit");
    result.lattice.basis = steps->refined(*shortened);
    result.steps = std::move(steps);
}

Result searchFreely(const Options& given, const Points& points, const std::vector<double>& weights,
                    Host& host) {
    // What the steps complain about is either one trial of many or part of the message below.
    const QuietLog quiet(host.session(), QuietLog::Keep::UntilReleased);
    CellSearchOptions options;
    options.clustering = given.cell.clustering;
    options.canceled = [&host] {
        host.session().checkCanceled();
        return false;
    };
    const CellSearch search(options);
    const std::vector<LatticeCandidate> candidates = search.search(points, weights);
    const std::string advice =
        "; try parameters (--max-length about three times the distance of neighbours, --eps, --min-points), "
        "or "
        "another --threshold in 'vrk peaks'";
    if (candidates.empty())
        throw Failure("no cell was found: " + extentText(points) + advice, FailureKind::NothingFound);
    Result result;
    const LatticeCandidate& best = candidates.front();
    if (!isConvincing(best.score))
        throw Failure(formatted("no cell was found: the best one explains %d of %d reflections, hardly more "
                                "than chance",
                                best.score.indexed, best.score.points) +
                          advice,
                      FailureKind::NothingFound);
    result.automatic = true;
    result.lattice = best.lattice;
    result.score = best.score;
    if (candidates.size() > 1) result.rivalEvidence = candidates[1].score.evidence;
    result.parameter = search.parameterOf(best.trial);
    if (given.dump.empty() && given.report.empty()) return result;
    const DebugDump dump(given.dump);
    result.steps = search.stepsOf(best, points, weights);
    dump.finish(host);
    return result;
}

/// Reduces the lattice and looks for its symmetry.
void describe(Result& result) {
    result.lattice.pixelSize = result.pixelSize;
    if (result.lattice.toUnitCell().isDegenerate())
        throw Failure("the vectors found span no cell; use a larger --det-limit", FailureKind::NothingFound);
    result.reciprocal = niggliReduced(result.lattice).toUnitCell();
    result.symmetry = LatticeSymmetry::best(result.reciprocal);
}

/// The nodes of the lattice that have a point within the radius of the score. The curvature of the Ewald
/// sphere is not known here; it matters at the rim of the recorded space alone.
Completeness completenessOf(const Result& result, const Points& points, const PeakFileHead& head) {
    constexpr double kDegree = std::numbers::pi / 180.0;
    RecordedSpace space;
    space.tiltFirst = head.firstTilt * kDegree;
    space.tiltLast = head.lastTilt * kDegree;
    space.halfWidth = 0.5 * head.size[0];
    double nearest = space.halfWidth;
    std::vector<Indices> indices;
    const Eigen::Matrix3d inverse = result.lattice.basis.inverse();
    for (const Vector3d& point : points) {
        nearest = std::min(nearest, point.norm());
        const Vector3d hkl = (inverse * (point - result.lattice.origin)).array().round();
        if (distanceToNode(point, result.lattice, inverse) <= result.score.radius)
            indices.push_back({static_cast<int>(hkl[0]), static_cast<int>(hkl[1]), static_cast<int>(hkl[2])});
    }
    space.zeroBeam = nearest;
    return vrk::completenessOf(result.lattice, indices, space);
}

Result findCell(const Options& options, Host& host) {
    const PeakList peaks = readPeaks(options.peaks);
    std::vector<double> weights;
    const Points points = pointsOf(peaks, weights);
    Result result;
    if (options.cell.isGiven()) {
        searchByParameters(options, points, result, host);
        result.score = scoreLattice(points, result.lattice);
        if (!isConvincing(result.score))
            host.warn(
                formatted("the cell explains %d of %d reflections, hardly more than chance; do not trust "
                          "it before another look at the parameters",
                          result.score.indexed, result.score.points));
    } else {
        result = searchFreely(options, points, weights, host);
    }
    if (peaks.head && peaks.head->firstTilt < peaks.head->lastTilt)
        result.completeness = completenessOf(result, points, *peaks.head);
    result.reflections = points.size();
    result.pixelSize = options.pixelSize > 0.0 ? options.pixelSize : peaks.head ? peaks.head->pixelSize : 0.0;
    if (!result.hasScale())
        host.warn("the pixel size is not known, so the cell has no scale; give it with --pixel-size");
    describe(result);
    if (!options.report.empty()) {
        Lattice lattice = Lattice::of(result.reciprocal, result.lattice.origin);
        lattice.pixelSize = result.pixelSize;
        writeEvaluation(result.steps->evaluate(lattice, result.score, points), options.report);
    }
    return result;
}

void writeCell(const Options& options, const Result& result, Host& host) {
    OutputFile file(options.output);
    UnitCell cell(result.reciprocal);
    if (!CellFileImportExport::writeCellFile_version_2(file.path().string(), &cell))
        throw Failure("cannot write " + options.output + ": " + host.session().lastError());
    file.commit();
}

Json toJson(const CellParameters& p) {
    return {{"a", p.a}, {"b", p.b}, {"c", p.c}, {"alpha", p.alpha}, {"beta", p.beta}, {"gamma", p.gamma}};
}

CellParameters parametersOf(const UnitCell& cell) {
    return {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC(),
            cell.getAlpha(),     cell.getBeta(),      cell.getGamma()};
}

Json toJson(const Options& options, const Result& result) {
    Json json = {{"peaks", options.peaks}, {"cell_file", options.output}, {"cell", nullptr}};
    if (result.hasScale()) {
        const std::unique_ptr<UnitCell> direct(result.reciprocal.getReciprocalCell());
        json["cell"] = toJson(parametersOf(*direct));
        json["cell"]["volume"] = direct->getExactVolume();
    }
    json["lattice"] = {{"bravais", LATTICE::shortName(result.symmetry.bravaisType)},
                       {"centring", std::string(1, result.symmetry.centring)},
                       {"misfit_deg", result.symmetry.qualityIndex},
                       {"conventional", nullptr}};
    if (result.hasScale()) json["lattice"]["conventional"] = toJson(result.symmetry.measured);
    std::array<std::array<double, 3>, 3> vectors{};
    result.reciprocal.getBase(vectors[0].data(), vectors[1].data(), vectors[2].data());
    json["reciprocal_vectors_px"] = vectors;
    const Vector3d& origin = result.lattice.origin;
    json["origin_px"] = {origin[0], origin[1], origin[2]};
    json["pixel_size"] = result.hasScale() ? Json(result.pixelSize) : Json(nullptr);
    json["reflections"] = {{"found", result.reflections},
                           {"indexed", result.score.indexed},
                           {"fraction_indexed", result.score.fraction()},
                           {"radius_px", result.score.radius}};
    const Verdict verdict = verdictOn(result);
    json["confidence"] = {{"level", nameOf(verdict.level)},
                          {"reasons", verdict.reasons},
                          {"evidence", result.score.evidence},
                          {"fraction_by_chance", result.score.chance},
                          {"runner_up_evidence", result.rivalEvidence}};
    json["search"] = result.automatic ? "automatic" : "parameters";
    json["parameters"] = cellSettings(result.parameter, options.cell.clustering);
    return json;
}

std::string cellText(const CellParameters& p, const char* edge) {
    std::string text;
    for (const double length : {p.a, p.b, p.c})
        text += formatted(edge, length);
    return text + formatted(" %8.3f %8.3f %8.3f", p.alpha, p.beta, p.gamma);
}

void report(std::ostream& out, const Options& options, const Result& result) {
    out << "                          a         b         c     alpha     beta    gamma      volume\n";
    if (result.hasScale()) {
        const std::unique_ptr<UnitCell> direct(result.reciprocal.getReciprocalCell());
        out << "reduced cell, A    " << cellText(parametersOf(*direct), " %9.4f")
            << formatted(" %11.2f\n", direct->getExactVolume());
        if (result.symmetry.number > 0 && result.symmetry.bravaisType != LATTICE::aP)
            out << formatted("%-19s", (std::string("lattice ") +
                                       LATTICE::shortName(result.symmetry.bravaisType) + ", A")
                                          .c_str())
                << cellText(result.symmetry.measured, " %9.4f") << '\n';
    }
    out << "reciprocal, voxels " << cellText(parametersOf(result.reciprocal), " %9.4f")
        << formatted(" %11.2f\n", result.reciprocal.getExactVolume());
    const LatticeScore& score = result.score;
    const Verdict verdict = verdictOn(result);
    out << formatted("lattice             %s, misfit %.2f degrees\n",
                     LATTICE::shortName(result.symmetry.bravaisType), result.symmetry.qualityIndex)
        << formatted(
               "indexed             %d of %d reflections (%.1f %%; %.1f %% by chance) within %g voxels\n",
               score.indexed, score.points, 100.0 * score.fraction(), 100.0 * score.chance, score.radius)
        << "confidence          " << nameOf(verdict.level) << '\n';
    for (const std::string& reason : verdict.reasons)
        out << "  because           " << reason << '\n';
    out << formatted("parameters          --min-length %g --max-length %g", result.parameter.getMinLength(),
                     result.parameter.getMaxLength())
        << formatted(" --clustering %s", nameOf(options.cell.clustering));
    if (options.cell.clustering != ClusteringMethod::FSC)
        out << formatted(" --eps %g --min-points %d", result.parameter.getDBSCANEps(),
                         result.parameter.getDBSCANMinPts());
    out << (result.automatic ? " (found)\n" : " (given)\n") << "written             " << options.output
        << '\n';
}

/// Refuses names for results that are the reflections' or each other's.
void checkNames(const Options& options) {
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

void run(const Options& options, Host& host) {
    if (!options.log.empty()) host.openLog(options.log);
    checkNames(options);
    const Result result = findCell(options, host);
    writeCell(options, result, host);
    if (options.json)
        host.out() << toJson(options, result).dump(1) << '\n';
    else
        report(host.out(), options, result);
}

}  // namespace

void addCellCommand(CLI::App& app, Host& host) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("cell", "Find the cell of a list of reflections");
    command
        ->add_option("peaks", options->peaks,
                     "Peak file, or a list of x y z [intensity] in voxels about 0, 0, 0")
        ->required()
        ->type_name("PEAKS");
    command->add_option("-o,--output", options->output, "Cell file to write")->required()->type_name("CELL");
    command->add_option("--pixel-size", options->pixelSize, "1/m per voxel [that of the peak file]")
        ->check(CLI::PositiveNumber);
    addCellOptions(*command, options->cell, true);
    command
        ->add_option("--report", options->report,
                     "Write what the cell rests on here, and as JSON beside it: clusters, choice, reduction, "
                     "symmetry, displacements")
        ->type_name("FILE.txt");
    command
        ->add_option(
            "--debug-dump", options->dump,
            "Write difference vectors, clusters and their lines into this folder, with a gnuplot script "
            "that shows them")
        ->type_name("FOLDER");
    command->add_option("--log", options->log, "Write all messages here")->type_name("FILE");
    command->add_flag("--json", options->json, "Print the result as JSON");
    command->footer(
        "Without options of the cell finding they are found: difference vectors are clustered with several\n"
        "sets of parameters and the lattice that explains the reflections best wins. With any of them but\n"
        "--clustering the cell is found in one pass with exactly these parameters and the defaults of the\n"
        "others.\n\n"
        "Example:\n"
        "  vrk cell peaks.txt -o cell.txt");
    command->callback([options, &host] { run(*options, host); });
}

}  // namespace vrk::app
