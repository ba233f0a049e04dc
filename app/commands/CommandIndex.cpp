#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "commands/Commands.h"
#include "console/MemoryOption.h"
#include "crystallography/CellFileImportExport.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"
#include "indexing/EwaldCurvature.h"
#include "indexing/HKLfileImportExport.h"
#include "indexing/IndicateWithHKL.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/formats/PeakList.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/frames/DataFiles.h"
#include "pipeline/integration/PeakIntensities.h"
#include "pipeline/latticesearch/PositionRefinement.h"
#include "pipeline/run/PeakPlaces.h"
#include "pipeline/run/SymmetryChoice.h"

namespace vrk::app {
namespace {

using Json = nlohmann::ordered_json;

struct IndexArguments {
    std::string peaks;
    std::string cell;
    std::string output;
    std::string format;
    std::string lattice = "primitive";
    std::string positions;
    std::string volume;
    std::string cellOutput;
    std::string plots;
    std::string formula;
    LogOptions log;
    double pixelSize = 0.0;
    double tolerance = 0.25;
    double voltage = 0.0;
    double radius = 3.0;
    bool keepCell = false;
    bool json = false;
};

/// The basis in which indices are written, and what is known of its cell.
struct Setting {
    LATTICE::BravaisTypes type = LATTICE::aP;
    char centring = 'P';
    std::array<std::array<int, 3>, 3> fromPrimitive = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
    std::array<double, 6> cell{};
    std::array<double, 6> cellSigma{};
    double volume = 0.0;
    double volumeSigma = 0.0;
};

/// What the command found.
struct Indexing {
    ReflexVectorPtr reflections;
    UnitCell cell;
    std::array<double, 3> origin{};
    Setting setting;
    std::optional<RefinedPositions> refinement;
    int indexed = 0;
    std::array<double, IndicateWithHKL::kResultSize> displacements{};
};

std::string formatOf(const IndexArguments& options) {
    if (!options.format.empty()) return options.format;
    std::string extension = std::filesystem::path(options.output).extension().string();
    if (extension == ".mtz" || extension == ".cif") return extension.substr(1);
    return "hkl";
}

/// The cell of the file as a primitive reciprocal cell with the pixel size asked for, that of the peaks, or
/// that of the file itself.
UnitCell readCell(const IndexArguments& options, const PeakList& peaks) {
    const double pixelSize = options.pixelSize > 0.0 ? options.pixelSize
                             : peaks.head            ? peaks.head->pixelSize
                                                     : 0.0;
    const CellInput input = cellFromFile(options.cell, pixelSize);
    const std::unique_ptr<UnitCell> reciprocal(UnitCell(input.primitive).getReciprocalCell());
    return *reciprocal;
}

void takeSetting(const LatticeCharacter& character, Setting& setting) {
    setting.type = character.bravaisType;
    setting.centring = character.centring;
    for (std::size_t i = 0; i < 3; ++i)
        std::copy(character.toConventional[i], character.toConventional[i] + 3,
                  setting.fromPrimitive[i].begin());
}

/// The type of that name; nothing for "auto".
std::optional<LATTICE::BravaisTypes> wantedType(const std::string& lattice) {
    using enum LATTICE::BravaisTypes;
    for (const auto type : {cP, cI, cF, tP, tI, hP, hR, oP, oI, oC, oF, mP, mC, aP})
        if (lattice == LATTICE::shortName(type)) return type;
    return std::nullopt;
}

/// The setting that is asked for, and its cell, when nothing is refined.
void keepCell(const IndexArguments& options, Indexing& result) {
    Setting& setting = result.setting;
    if (options.lattice != "primitive")
        takeSetting(likelyCharacters(result.cell, wantedType(options.lattice)).front(), setting);
    const std::unique_ptr<UnitCell> direct(UnitCell(result.cell).getReciprocalCell());
    int matrix[3][3];
    for (std::size_t i = 0; i < 3; ++i)
        std::copy(setting.fromPrimitive[i].begin(), setting.fromPrimitive[i].end(), matrix[i]);
    direct->transform(matrix);
    setting.cell = {direct->getLengthOfA(), direct->getLengthOfB(), direct->getLengthOfC(),
                    direct->getAlpha(),     direct->getBeta(),      direct->getGamma()};
    setting.volume = direct->getExactVolume();
}

double farthestOf(const std::vector<Eigen::Vector3d>& positions, const Eigen::Vector3d& centre) {
    double farthest = 1.0;
    for (const Eigen::Vector3d& position : positions)
        if (position.allFinite()) farthest = std::max(farthest, (position - centre).norm());
    return farthest;
}

/// The reflections where the patterns showed them, and the tilts at which they did.
ReflexVectorPtr samplePositions(const IndexArguments& options, const PeakList& peaks,
                                std::vector<double>& tilts) {
    const bool exact = options.positions == "exact" || (options.positions.empty() && !peaks.head);
    if (exact)
        return ReflexVectorPtr(
            ReflectionPositions::copies(peaks.reflections.get(), 0, peaks.origin.data(), &tilts));
    if (!peaks.head)
        throw Failure(
            "a plain list does not tell the volume that its positions lie in; --positions voxel needs a "
            "peak file",
            FailureKind::Usage);
    return placesInPatterns(*peaks.reflections, *peaks.head, tilts);
}

void moveTo(const std::vector<Eigen::Vector3d>& positions, ReflexVector& reflections) {
    for (std::size_t i = 0; i < positions.size(); ++i) {
        Reflex moved(positions[i].x(), positions[i].y(), positions[i].z());
        moved.setIntensity(reflections[i]->getIntensity());
        *reflections[i] = moved;
    }
}

/// Refines the cell without ties, which gives the indices, and under those of the lattice type, which is what
/// is reported.
void refine(const IndexArguments& options, const PeakList& peaks, const std::vector<double>& tilts,
            Host& host, Indexing& result) {
    std::vector<Eigen::Vector3d> positions;
    for (Reflex* reflex : *result.reflections)
        positions.emplace_back(reflex->getCenterInX(), reflex->getCenterInY(), reflex->getCenterInZ());
    RefinementSettings settings;
    settings.wavelength = EwaldCurvature::wavelength(options.voltage);
    settings.tolerance = options.tolerance;
    const Lattice start = Lattice::of(result.cell, Eigen::Vector3d(result.origin.data()));
    result.refinement = refinePositions(positions, tilts, start, settings);
    if (!result.refinement)
        throw Failure(
            "too few reflections lie near the nodes of the cell's lattice to refine it; check that the "
            "cell belongs to these peaks, allow a larger --tolerance, or use --keep-cell",
            FailureKind::NothingFound);
    RefinedLattice reported = result.refinement->lattice;
    if (options.lattice != "primitive") {
        SymmetryInput input;
        input.positions = positions;
        input.tilts = tilts;
        input.centre = Eigen::Vector3d(result.origin.data());
        input.halfWidth = peaks.head ? 0.5 * peaks.head->size[0] : farthestOf(positions, input.centre);
        input.wavelength = settings.wavelength;
        input.tolerance = options.tolerance;
        input.wanted = wantedType(options.lattice);
        SymmetryChoice choice = chooseSymmetry(input, std::move(*result.refinement));
        takeSetting(choice.characters.front(), result.setting);
        const std::string strain = strainText(choice.conventional, choice.untied, result.setting.type);
        if (!strain.empty()) host.warn(strain);
        result.refinement = std::move(choice.refined);
        reported = choice.conventional;
    }
    moveTo(result.refinement->positions, *result.reflections);
    const Lattice& free = result.refinement->lattice.lattice;
    result.cell = free.toUnitCell();
    Eigen::Map<Eigen::Vector3d>(result.origin.data()) = free.origin;
    result.setting.cell = reported.cell;
    result.setting.cellSigma = reported.cellSigma;
    result.setting.volume = reported.volume;
    result.setting.volumeSigma = reported.volumeSigma;
}

Indexing indexPeaks(const IndexArguments& options, Host& host) {
    const PeakList peaks = readPeaks(options.peaks);
    if (!options.volume.empty()) {
        if (!peaks.head)
            throw Failure(
                "--volume needs a peak file; a plain list does not tell where its positions lie in it",
                FailureKind::Usage);
        const std::unique_ptr<VoxMRCData> volume = readVolume(options.volume, host.session());
        integrateIntensities(*volume, *peaks.reflections, options.radius);
    } else if (!options.output.empty() && !peaks.hasIntensities) {
        throw Failure(
            options.peaks +
                " holds no intensities, so there are none to write; give --volume to measure them, find "
                "the peaks anew with 'vrk peaks', or add a fourth column. Without -o the cell alone is "
                "refined",
            FailureKind::Usage);
    }
    Indexing result;
    result.cell = readCell(options, peaks);
    result.origin = peaks.origin;
    std::vector<double> tilts;
    result.reflections = samplePositions(options, peaks, tilts);
    if (options.keepCell)
        keepCell(options, result);
    else
        refine(options, peaks, tilts, host, result);

    result.indexed = IndicateWithHKL::indicate(
        nullptr, &result.cell, result.reflections.get(), result.origin.data(), 2, options.tolerance,
        result.displacements.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (result.indexed <= 0)
        throw Failure(
            "none of the " + std::to_string(result.reflections->size()) +
                " reflections lies near a node of the cell's lattice; check that the cell belongs to these "
                "peaks, or allow a larger --tolerance",
            FailureKind::NothingFound);
    return result;
}

/// Gives the list the indices of the setting; 000 becomes "not indexed".
void changeSetting(ReflexVector& list, const Setting& setting) {
    const auto& m = setting.fromPrimitive;
    for (Reflex* reflex : list) {
        if (!reflex || !reflex->isIndicated()) continue;
        const std::array<long long, 3> old = {reflex->getH(), reflex->getK(), reflex->getL()};
        std::array<long long, 3> hkl{};
        for (std::size_t j = 0; j < 3; ++j)
            hkl[j] = old[0] * m[0][j] + old[1] * m[1][j] + old[2] * m[2][j];
        const bool fits =
            std::all_of(hkl.begin(), hkl.end(), [](long long n) { return std::abs(n) < 1LL << 30; });
        const bool beam = hkl == std::array<long long, 3>{0, 0, 0};
        if (fits && !beam)
            reflex->setHKL(static_cast<int>(hkl[0]), static_cast<int>(hkl[1]), static_cast<int>(hkl[2]));
        else
            reflex->setHKL(Reflex::kNotIndexed, Reflex::kNotIndexed, Reflex::kNotIndexed);
    }
}

void writeReflections(const IndexArguments& options, Indexing& result, Host& host,
                      std::vector<std::string>& files) {
    if (options.output.empty()) return;
    files.push_back(options.output);
    const std::string format = formatOf(options);
    OutputFile file(options.output);
    ReflectionSet set;
    set.reflections = indexedReflections(*result.reflections);
    set.cell = result.setting.cell;
    set.cellSigma = result.setting.cellSigma;
    set.wavelength = EwaldCurvature::wavelength(options.voltage);
    set.centring = result.setting.centring;
    set.formula = options.formula;
    set.title = std::filesystem::path(options.output).stem().string();
    if (format == "mtz") {
        writeMtz(set, file.path());
    } else if (format == "cif") {
        writeCif(set, file.path());
    } else if (format == "shelx") {
        if (!(set.wavelength > 0.0))
            throw Failure("--format shelx needs the wavelength; give the voltage with --voltage",
                          FailureKind::Usage);
        const auto instructions = std::filesystem::path(options.output).replace_extension(".ins");
        OutputFile instructionFile(instructions);
        writeShelx(set, file.path());
        writeShelxInstructions(set, instructionFile.path());
        instructionFile.commit();
        files.push_back(instructions.string());
    } else if (!HKLfileImportExport::exportHKLFile(result.reflections.get(), file.path().string())) {
        throw Failure("cannot write " + options.output + ": " + host.session().lastError());
    }
    file.commit();
}

void writeCell(const IndexArguments& options, Indexing& result, Host& host, std::vector<std::string>& files) {
    if (!options.cellOutput.empty()) {
        OutputFile cellFile(options.cellOutput);
        if (!CellFileImportExport::writeCellFile_version_2(cellFile.path().string(), &result.cell))
            throw Failure("cannot write " + options.cellOutput + ": " + host.session().lastError());
        cellFile.commit();
        files.push_back(options.cellOutput);
    }
}

void plot(const IndexArguments& options, Indexing& result, std::vector<std::string>& files) {
    if (options.plots.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(options.plots, error);
    if (!std::filesystem::is_directory(options.plots))
        throw Failure("cannot make the folder " + options.plots + " for the plots: " + error.message());
    IndicateWithHKL::generateEvaluationPlot(result.reflections.get(), options.plots);
    IndicateWithHKL::generateHKLplot(result.reflections.get(), options.plots);
    files.push_back(options.plots);
}

Json toJson(const Indexing& result, const std::vector<std::string>& files) {
    const Setting& setting = result.setting;
    const double total = static_cast<double>(result.reflections->size());
    Json json = {{"reflections",
                  {{"found", result.reflections->size()},
                   {"indexed", result.indexed},
                   {"fraction_indexed", result.indexed / total},
                   {"mean_displacement", result.displacements[0]},
                   {"rms_displacement", result.displacements[4]}}},
                 {"cell",
                  {{"bravais", LATTICE::shortName(setting.type)},
                   {"centring", std::string(1, setting.centring)},
                   {"parameters", setting.cell},
                   {"esd", setting.cellSigma},
                   {"volume", setting.volume},
                   {"volume_esd", setting.volumeSigma},
                   {"primitive_to_cell", setting.fromPrimitive}}},
                 {"origin_px", result.origin},
                 {"files", files}};
    std::array<std::array<double, 3>, 3> vectors{};
    result.cell.getBase(vectors[0].data(), vectors[1].data(), vectors[2].data());
    json["cell"]["reciprocal_vectors_px"] = vectors;
    if (result.refinement) {
        const RefinedPositions& refined = *result.refinement;
        json["refinement"] = {
            {"sigma", refined.lattice.sigma},        {"rounds", refined.lattice.rounds},
            {"stable", refined.lattice.stable},      {"sense", refined.handedness()},
            {"sense_decided", refined.decided},      {"residual_plus", refined.residual[1]},
            {"residual_minus", refined.residual[0]}, {"significance", refined.significance}};
    }
    return json;
}

std::string handednessText(const RefinedPositions& refined) {
    if (refined.sense == 0)
        return "not looked at; give --voltage, without which the curvature of the Ewald sphere is not known";
    const std::string residuals =
        formatted(", residual %.2f voxels with +1, %.2f with -1", refined.residual[1], refined.residual[0]);
    return (refined.decided ? formatted("%+d", refined.handedness()) : std::string("undecided")) + residuals;
}

void report(Host& host, const Indexing& result, const std::vector<std::string>& files) {
    const Setting& s = result.setting;
    std::ostream& out = host.out();
    const double percent = 100.0 * result.indexed / static_cast<double>(result.reflections->size());
    out << result.indexed << " of " << result.reflections->size() << " reflections indexed ("
        << std::round(10.0 * percent) / 10.0 << " %), displacement "
        << std::round(1000.0 * result.displacements[0]) / 1000.0 << " voxels in the mean, "
        << std::round(1000.0 * result.displacements[4]) / 1000.0 << " rms\n";
    out << "cell " << LATTICE::shortName(s.type) << ":";
    for (std::size_t i = 0; i < 6; ++i)
        out << (i == 3 ? "   " : " ") << withUncertainty(s.cell[i], s.cellSigma[i]);
    out << "   volume " << withUncertainty(s.volume, s.volumeSigma) << '\n';
    if (result.refinement) out << "handedness " << handednessText(*result.refinement) << '\n';
    if (files.empty()) return;
    out << "written:";
    for (const std::string& file : files)
        out << ' ' << file;
    out << '\n';
}

void index(Host& host, const IndexArguments& options) {
    host.openLog(options.log);
    if (!options.formula.empty()) parseFormula(options.formula);
    if (options.voltage > 0.0) refuseImpossibleVoltage(options.voltage);
    Indexing result = indexPeaks(options, host);
    changeSetting(*result.reflections, result.setting);
    // The direct beam has lost its indices; text, plots and files count alike.
    result.indexed =
        static_cast<int>(std::count_if(result.reflections->begin(), result.reflections->end(),
                                       [](const Reflex* reflex) { return reflex && reflex->isIndicated(); }));
    std::vector<std::string> files;
    writeReflections(options, result, host, files);
    writeCell(options, result, host, files);
    plot(options, result, files);
    if (options.json)
        host.out() << jsonText(toJson(result, files), 1) << '\n';
    else
        report(host, result, files);
}

/// What the indices are of, and what the positions are.
void addModelOptions(Command& command, IndexArguments& options) {
    command
        .option(
            "--lattice", options.lattice,
            "Setting of cell and indices: primitive (the cell of the file), auto (the conventional cell that "
            "'vrk run' would choose) or a Bravais type, cP to aP; its symmetry ties the cell that is "
            "reported, not the indices")
        .showDefault()
        .oneOf({"primitive", "auto", "cP", "cI", "cF", "tP", "tI", "hP", "hR", "oP", "oI", "oC", "oF", "mP",
                "mC", "aP"});
    command
        .option("--tolerance", options.tolerance, "Greatest distance of a fractional index from an integer")
        .showDefault()
        .range(0.001, 0.5);
    command.flag("--keep-cell", options.keepCell, "Index with the cell as it is, without refining it");
    command
        .option("--voltage", options.voltage,
                "High tension in kV; corrects for the curvature of the Ewald sphere and "
                "finds the sense of the tilt")
        .positive();
    command
        .option("--pixel-size", options.pixelSize,
                "Pixel size in 1/m per voxel [that of the peak file, else of the cell file]")
        .positive();
    command
        .option("--positions", options.positions,
                "What the positions are. voxel: places in the volume, corrected for its sampling; "
                "exact: taken as they are [voxel for "
                "a peak file, exact for a list]")
        .oneOf({"voxel", "exact"});
}

void addResultOptions(Command& command, IndexArguments& options) {
    command
        .option("-o,--output", options.output, "Reflections to write; without it the cell alone is refined")
        .typeName("HKL");
    command
        .option("--format", options.format,
                "Format. hkl: fixed columns 3I4,2F8.2; shelx: HKLF 4, scaled as a whole, with an .ins "
                "file beside it; "
                "mtz; cif [by the output's extension, else hkl]. All but hkl add up the pieces of a "
                "reflection that broke up")
        .oneOf({"hkl", "shelx", "mtz", "cif"});
    command.option("--volume", options.volume, "Integrate intensities from this volume [those of the list]")
        .typeName("VOLUME.mrc");
    command.option("--radius", options.radius, "Radius of the integration with --volume, voxels")
        .showDefault()
        .range(0.5, 50.0);
    command.option("--formula", options.formula, "Content for the files, for instance \"Ca3 Al2 Si3 O12\"");
    command.option("--cell-out", options.cellOutput, "Write the refined primitive cell here")
        .typeName("CELL");
    command.option("--plots", options.plots, "Write plots of displacements and indices into this folder")
        .typeName("DIR");
}

}  // namespace

void addIndexCommand(CommandLine& line, Host& host) {
    auto options = std::make_shared<IndexArguments>();
    Command command = line.command(
        "index",
        "Refine a cell against the reflections, give them h, k, l and write them for structure solution");
    command.option("peaks", options->peaks, "Peak file, or a list of x y z [intensity] about 0, 0, 0")
        .required()
        .typeName("PEAKS");
    command.option("cell", options->cell, "Cell file").required().typeName("CELL");
    addResultOptions(command, *options);
    addModelOptions(command, *options);
    addLogOptions(command, options->log);
    command.flag("--json", options->json, "Print the result as JSON");
    addMemoryOption(command, &host);
    command.footer(
        "Example:\n  vrk index peaks.txt cell.txt -o garnet.hkl --format shelx --lattice cI --voltage 200 "
        "--volume volume.mrc\nwrites garnet.hkl and garnet.ins.");
    command.action([options, &host] { index(host, *options); });
}

}  // namespace vrk::app
