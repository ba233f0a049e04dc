#include <charconv>
#include <cmath>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands/Commands.h"
#include "crystallography/BasicMath.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/NiggliReduction.h"
#include "crystallography/Space.h"
#include "crystallography/UnitCellTest.h"
#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/UnitCellParameters.h"
#include "pipeline/formats/CellInput.h"

namespace vrk::app {
namespace {

using Json = nlohmann::ordered_json;

struct CellInfoArguments {
    std::vector<std::string> cell;
    std::string centring = "P";
    double pixelSize = 0.0;
    LatticeTolerances tolerances;
    double lengthPercent = 3.0;
    LogOptions log;
    bool json = false;
};

/// Everything that is said about a cell.
struct CellReport {
    CellInput input;
    UnitCell reduced;
    bool isNiggli = false;
    double toReduced[3][3];  ///< reduced base = base of the input cell x this
    SpaceDimensions reciprocal;
    double reciprocalVolume = 0.0;
    std::vector<LatticeCharacter> lattices;
};

CellInput readCell(const CellInfoArguments& options) {
    if (options.centring.size() != 1)
        throw Failure("there is no centring " + options.centring + "; use P, A, B, C, I, F or R",
                      FailureKind::Usage);
    if (options.cell.size() == 1) return cellFromFile(options.cell.front(), options.pixelSize);
    if (options.cell.size() != 6)
        throw Failure("a cell is six numbers A B C ALPHA BETA GAMMA or one cell file, not " +
                          std::to_string(options.cell.size()) + " values",
                      FailureKind::Usage);
    std::vector<double> numbers;
    for (const std::string& text : options.cell) {
        double value = 0.0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc() || end != text.data() + text.size())
            throw Failure("'" + text + "' is not a number; give A B C ALPHA BETA GAMMA", FailureKind::Usage);
        numbers.push_back(value);
    }
    return cellFromNumbers(numbers, options.centring.front());
}

CellReport examine(const CellInput& input, const LatticeTolerances& tolerances) {
    CellReport report;
    report.input = input;
    report.reduced = input.primitive;
    NiggliReduction::niggliReduction(&report.reduced, 0);
    report.isNiggli = UnitCellTest::isNiggliCell(&report.reduced);

    double base[3][3];
    double inverse[3][3];
    double reduced[3][3];
    input.cell.getOrientationMatrix(base);
    report.reduced.getOrientationMatrix(reduced);
    if (BasicMath::Invert(base, inverse)) BasicMath::MatrixProduct(inverse, reduced, report.toReduced);

    double a[3], b[3], c[3];
    input.cell.getBase(a, b, c);
    Space space;
    space.setRealBaseVectors(a, b, c);
    report.reciprocal = space.getReciprocalDimensions();
    report.reciprocalVolume = space.getReciprocalVolume();
    report.lattices = LatticeSymmetry::analyse(input.primitive, tolerances);
    LatticeSymmetry::preferExactFit(report.lattices);
    if (report.lattices.empty())
        throw Failure("this cell is too flat for an analysis of its symmetry", FailureKind::NothingFound);
    return report;
}

template <typename Number>
Json reportJson(const Number (&m)[3][3]) {
    return {{m[0][0], m[0][1], m[0][2]}, {m[1][0], m[1][1], m[1][2]}, {m[2][0], m[2][1], m[2][2]}};
}

Json reportJson(const LatticeCharacter& lattice) {
    return {{"character", lattice.number},
            {"bravais", LATTICE::shortName(lattice.bravaisType)},
            {"centring", std::string(1, lattice.centring)},
            {"misfit_deg", lattice.qualityIndex},
            {"misfit_length", lattice.lengthMisfit},
            {"matrix_from_primitive", reportJson(lattice.toConventional)},
            {"conventional", cellParametersJson<Json>(lattice.measured)},
            {"symmetrised", cellParametersJson<Json>(lattice.symmetrised)}};
}

Json reportJson(const CellReport& report) {
    const UnitCell& cell = report.input.cell;
    Json out;
    out["cell"] = cellParametersJson<Json>(parametersOf(cell));
    out["cell"]["centring"] = std::string(1, report.input.centring);
    out["cell"]["volume"] = cell.getExactVolume();
    out["metric"] = {{cell.getA(), cell.getF(), cell.getE()},
                     {cell.getF(), cell.getB(), cell.getD()},
                     {cell.getE(), cell.getD(), cell.getC()}};
    out["primitive"] = {{"matrix", reportJson(report.input.toPrimitive)}};
    out["reduced"] = cellParametersJson<Json>(parametersOf(report.reduced));
    out["reduced"]["volume"] = report.reduced.getExactVolume();
    out["reduced"]["niggli"] = report.isNiggli;
    out["reduced"]["matrix"] = reportJson(report.toReduced);
    const SpaceDimensions& r = report.reciprocal;
    out["reciprocal"] = cellParametersJson<Json>(std::array{r.a, r.b, r.c, r.alpha, r.beta, r.gamma});
    out["reciprocal"]["volume"] = report.reciprocalVolume;
    for (const LatticeCharacter& lattice : report.lattices)
        out["lattices"].push_back(reportJson(lattice));
    return out;
}

std::string textOf(const CellParameters& p, const char* edgeFormat = "%9.4f ") {
    std::string text;
    for (const double edge : {p.a, p.b, p.c})
        text += formatted(edgeFormat, edge);
    return text + formatted(" %7.3f %7.3f %7.3f", p.alpha, p.beta, p.gamma);
}

double volumeOf(const LatticeCharacter& lattice, double primitiveVolume) {
    const auto& m = lattice.toConventional;
    const int points = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    return points * primitiveVolume;
}

/// A multiple of 1/6 as people write it: 1/2, -1/3, 2.
std::string fractionOf(double x) {
    const long sixths = std::lround(6.0 * x);
    if (std::abs(6.0 * x - static_cast<double>(sixths)) > 1e-6) return formatted("%.4f", x);
    for (const long denominator : {1L, 2L, 3L})
        if (sixths * denominator % 6 == 0) {
            const std::string numerator = std::to_string(sixths * denominator / 6);
            return denominator == 1 ? numerator : numerator + "/" + std::to_string(denominator);
        }
    return std::to_string(sixths) + "/6";
}

std::string combinationOf(const double (&m)[3][3], int column) {
    std::string text;
    for (int row = 0; row < 3; ++row) {
        std::string factor = fractionOf(m[row][column]);
        if (factor == "0" || factor == "-0") continue;
        const bool isNegative = factor.front() == '-';
        if (isNegative) factor.erase(0, 1);
        if (factor == "1") factor.clear();
        text += text.empty() ? (isNegative ? "-" : "") : (isNegative ? " - " : " + ");
        text += factor + (factor.empty() ? "" : " ") + "abc"[row];
    }
    return text;
}

void printLattices(std::ostream& out, const CellReport& report, const LatticeTolerances& tolerances) {
    out << formatted("\nLattices within %g degrees and %g %%, the answer first, then by symmetry\n",
                     tolerances.angle, 100.0 * tolerances.length)
        << "     no type   misfit           conventional cell                                          "
           "volume\n"
        << "               deg     %           a         b         c    alpha    beta   gamma\n";
    bool isBest = true;
    for (const LatticeCharacter& lattice : report.lattices) {
        out << formatted("  %s %2d  %s  %5.2f  %5.2f  ", isBest ? "*" : " ", lattice.number,
                         LATTICE::shortName(lattice.bravaisType), lattice.qualityIndex,
                         100.0 * lattice.lengthMisfit)
            << textOf(lattice.measured)
            << formatted(" %11.2f\n", volumeOf(lattice, report.reduced.getExactVolume()));
        isBest = false;
    }
    const LatticeCharacter& best = report.lattices.front();
    out << "  * " << LATTICE::shortName(best.bravaisType) << " symmetrised         "
        << textOf(best.symmetrised) << '\n';
}

void print(std::ostream& out, const CellReport& report, const LatticeTolerances& tolerances) {
    const UnitCell& cell = report.input.cell;
    const SpaceDimensions& r = report.reciprocal;
    out << "                              a         b         c    alpha    beta   gamma      volume\n"
        << "Cell, " << report.input.centring << "-lattice      A  " << textOf(parametersOf(cell))
        << formatted(" %11.2f\n", cell.getExactVolume())
        << (report.isNiggli ? "Reduced (Niggli)     A  " : "Reduced (Buerger)    A  ")
        << textOf(parametersOf(report.reduced)) << formatted(" %11.2f\n", report.reduced.getExactVolume())
        << "Reciprocal cell    1/A  " << textOf({r.a, r.b, r.c, r.alpha, r.beta, r.gamma}, "%9.6f ")
        << formatted(" %11.3e\n", report.reciprocalVolume);
    out << "\nReduced axes in those of the cell\n";
    for (int column = 0; column < 3; ++column)
        out << "  "
            << "abc"[column] << "' = " << combinationOf(report.toReduced, column) << '\n';
    out << "\nMetric of the cell, A^2\n"
        << formatted("  %12.4f %12.4f %12.4f\n", cell.getA(), cell.getF(), cell.getE())
        << formatted("  %12.4f %12.4f %12.4f\n", cell.getF(), cell.getB(), cell.getD())
        << formatted("  %12.4f %12.4f %12.4f\n", cell.getE(), cell.getD(), cell.getC());
    printLattices(out, report, tolerances);
}

void runCellInfo(Host& host, const CellInfoArguments& options) {
    host.openLog(options.log);
    LatticeTolerances tolerances = options.tolerances;
    tolerances.length = options.lengthPercent / 100.0;
    const CellReport report = examine(readCell(options), tolerances);
    if (options.json)
        host.out() << jsonText(reportJson(report), 1) << '\n';
    else
        print(host.out(), report, tolerances);
}

}  // namespace

void addCellInfoCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<CellInfoArguments>();
    Command command =
        line.command("cell-info", "Show metric, reduced cell and possible lattices of a unit cell");
    command.option("CELL", options->cell, "A B C ALPHA BETA GAMMA in Angstrom and degrees, or a cell file")
        .required()
        .typeName("");
    command
        .option("--centring", options->centring,
                "Centring of the six numbers: P, A, B, C, I, F or R; R with gamma 120 means hexagonal axes, "
                "otherwise rhombohedral ones")
        .showDefault();
    command.option("--pixel-size", options->pixelSize,
                   "Pixel size in 1/m per pixel, for a cell file that does not tell [from the file]");
    command.option("--angle", options->tolerances.angle, "Largest angular misfit, degrees")
        .range(0.0, 10.0)
        .showDefault();
    command.option("--length", options->lengthPercent, "Largest misfit of an edge, percent")
        .range(0.0, 15.0)
        .showDefault();
    addLogOptions(command, options->log);
    command.flag("--json", options->json, "Print the result as JSON");
    command.footer(
        "The misfit of a lattice is the largest deviation of its conventional cell from the symmetric one.\n"
        "The first lattice of the table is the answer; narrow the tolerances when it is too symmetric.\n\n"
        "Example:\n"
        "  vrk cell-info 10.41 10.41 10.41 109.4 109.6 109.3");
    command.action([options, &host] { runCellInfo(host, *options); });
}

}  // namespace vrk::app
