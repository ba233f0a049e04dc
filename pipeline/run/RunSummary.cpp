#include "pipeline/run/RunSummary.h"

#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>

#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<const char*, 6> kNames = {"a", "b", "c", "alpha", "beta", "gamma"};

/// A number with its standard uncertainty in units of the last digit: 12.0213(14).
std::string withUncertainty(double value, double sigma) {
    char text[64];
    if (!(sigma > 0.0) || !std::isfinite(sigma)) {
        std::snprintf(text, sizeof text, "%.4f", value);
        return text;
    }
    const int exponent = static_cast<int>(std::floor(std::log10(sigma)));
    int digits = std::clamp(1 - exponent, 0, 6);
    long last = std::lround(sigma * std::pow(10.0, digits));
    if (last > 19 && digits > 0) last = std::lround(sigma * std::pow(10.0, --digits));
    std::snprintf(text, sizeof text, "%.*f(%ld)", digits, value, last);
    return text;
}

Json parametersJson(const CellParameters& cell) {
    return {{"a", cell.a},         {"b", cell.b},       {"c", cell.c},
            {"alpha", cell.alpha}, {"beta", cell.beta}, {"gamma", cell.gamma}};
}

Json parametersJson(const double cell[6]) {
    Json json;
    for (std::size_t i = 0; i < 6; ++i)
        json[kNames[i]] = cell[i];
    return json;
}

Json characterJson(const LatticeCharacter& character) {
    Json json = parametersJson(character.measured);
    json["bravais"] = LATTICE::shortName(character.bravaisType);
    json["centring"] = std::string(1, character.centring);
    json["character"] = character.number;
    json["misfit_deg"] = character.qualityIndex;
    json["misfit_length"] = character.lengthMisfit;
    Json matrix = Json::array();
    for (const auto& row : character.toConventional)
        matrix.push_back({row[0], row[1], row[2]});
    json["transformation"] = matrix;
    return json;
}

Json cellJson(const RunResult& result) {
    Json cell;
    const CellRefinement::Result& free = result.refinement.lattice;
    cell["reduced"] = parametersJson(free.cell);
    cell["reduced"]["volume"] = free.volume;
    const CellRefinement::Result& tied = result.constrained.lattice;
    cell["conventional"] = parametersJson(tied.cell);
    cell["conventional"]["volume"] = tied.volume;
    cell["conventional"]["bravais"] = LATTICE::shortName(result.characters.front().bravaisType);
    cell["conventional"]["misfit_deg"] = result.characters.front().qualityIndex;
    cell["candidates"] = Json::array();
    for (const LatticeCharacter& character : result.characters)
        cell["candidates"].push_back(characterJson(character));
    cell["reciprocal_vectors_px"] = Json::array();
    for (const auto& vector : free.basis)
        cell["reciprocal_vectors_px"].push_back({vector[0], vector[1], vector[2]});
    cell["esd"] = {{"reduced", parametersJson(free.cellSigma)},
                   {"conventional", parametersJson(tied.cellSigma)}};
    cell["esd"]["reduced"]["volume"] = free.volumeSigma;
    cell["esd"]["conventional"]["volume"] = tied.volumeSigma;
    return cell;
}

Json secondsJson(const RunSeconds& seconds) {
    return {{"read", seconds.read},          {"preprocess", seconds.preprocess},
            {"tilt_axis", seconds.tiltAxis}, {"reconstruct", seconds.reconstruct},
            {"search", seconds.search},      {"cell", seconds.cell},
            {"index", seconds.index},        {"total", seconds.total}};
}

std::string senseText(const PositionRefinement::Result& refinement) {
    if (refinement.sense == 0) return "not looked at";
    if (!refinement.decided) return "undecided";
    return refinement.sense > 0 ? "+1" : "-1";
}

}  // namespace

double peakMemory() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

Json summaryJson(const RunOptions& options, const RunResult& result,
                 const std::vector<std::string>& warnings) {
    Json json;
    json["input"] = {{"path", options.series.string()}, {"nx", result.seriesSize[0]},
                     {"ny", result.seriesSize[1]},      {"nz", result.seriesSize[2]},
                     {"tilt_first", result.tiltFirst},  {"tilt_last", result.tiltLast},
                     {"pixel_size", result.pixelSize}};
    json["tilt_axis"] = {{"angle_deg", result.axisAngle}, {"source", result.axisSource}};
    if (result.axisUncertainty > 0.0) json["tilt_axis"]["uncertainty_deg"] = result.axisUncertainty;
    json["volume"] = {{"dims", result.volumeSize}};
    const auto found = result.indexed->size();
    const int indexed = result.refinement.lattice.indexed;
    json["reflections"] = {
        {"found", found},
        {"indexed", indexed},
        {"fraction_indexed", found > 0 ? static_cast<double>(indexed) / static_cast<double>(found) : 0.0},
        {"different_indices", result.uniqueIndices},
        {"resolution", result.resolution},
        {"residual_px", result.refinement.lattice.rms}};
    json["cell"] = cellJson(result);
    json["confidence"] = {{"level", nameOf(result.confidence)},
                          {"evidence", result.lattice.score.evidence},
                          {"fraction_by_chance", result.lattice.score.chance}};
    json["confidence"]["runner_up"] = nullptr;
    if (result.runnerUp)
        json["confidence"]["runner_up"] = {
            {"evidence", result.runnerUp->score.evidence},
            {"volume_ratio", result.lattice.lattice.cellVolume() / result.runnerUp->lattice.cellVolume()}};
    json["handedness"] = {{"sense", result.refinement.sense},
                          {"decided", result.refinement.decided},
                          {"residual_plus_px", result.refinement.residual[0]},
                          {"residual_minus_px", result.refinement.residual[1]}};
    json["parameters"] = {{"threshold", result.level.threshold},
                          {"cell_threshold", result.cellThreshold},
                          {"zero_beam", result.level.zeroBeam},
                          {"min_voxels", result.level.minVoxels},
                          {"min_length", result.trial.minLength},
                          {"max_length", result.trial.maxLength},
                          {"eps", result.trial.eps},
                          {"min_points", result.trial.minPts},
                          {"voltage_kv", result.kiloVolts}};
    json["seconds"] = secondsJson(result.seconds);
    json["peak_memory_mib"] = peakMemory();
    json["warnings"] = warnings;
    return json;
}

void writeSummary(const std::filesystem::path& path, const Json& summary) {
    OutputFile file(path);
    std::ofstream stream(file.path());
    stream << summary.dump(2) << '\n';
    stream.close();
    if (!stream) throw Failure("cannot write " + path.string() + "; check the free space");
    file.commit();
}

void printSummary(std::ostream& out, const RunResult& result) {
    char line[256];
    const auto print = [&](auto... values) {
        std::snprintf(line, sizeof line, values...);
        out << line << '\n';
    };
    const auto printCell = [&](const char* name, const CellRefinement::Result& fit) {
        std::string text;
        for (std::size_t i = 0; i < 6; ++i)
            text += "  " + withUncertainty(fit.cell[i], fit.cellSigma[i]);
        out << name << text << '\n';
    };
    const LatticeCharacter& answer = result.characters.front();
    print("series        %d frames of %d x %d, tilts %.2f to %.2f degrees", result.seriesSize[2],
          result.seriesSize[0], result.seriesSize[1], result.tiltFirst, result.tiltLast);
    print("tilt axis     %.2f degrees (%s)", result.axisAngle, result.axisSource.c_str());
    printCell("reduced     ", result.refinement.lattice);
    printCell("conventional", result.constrained.lattice);
    print("lattice       %s, misfit %.2f degrees, volume %.1f A^3, confidence %s",
          LATTICE::shortName(answer.bravaisType), answer.qualityIndex, result.constrained.lattice.volume,
          nameOf(result.confidence));
    for (std::size_t i = 1; i < std::min<std::size_t>(result.characters.size(), 4); ++i) {
        const LatticeCharacter& other = result.characters[i];
        const CellParameters& m = other.measured;
        print("  or          %s, misfit %.2f degrees:  %.3f  %.3f  %.3f  %.2f  %.2f  %.2f",
              LATTICE::shortName(other.bravaisType), other.qualityIndex, m.a, m.b, m.c, m.alpha, m.beta,
              m.gamma);
    }
    const auto found = result.indexed->size();
    print("reflections   %zu found, %d indexed (%.1f %%), %zu different, to %.2f A", found,
          result.refinement.lattice.indexed,
          100.0 * result.refinement.lattice.indexed / static_cast<double>(found), result.uniqueIndices,
          result.resolution);
    print("residual      %.2f voxels", result.refinement.lattice.rms);
    out << "handedness    " << senseText(result.refinement) << '\n';
    print(
        "parameters    threshold %g (lattice at %g), zero beam %.0f, vectors %.1f to %.1f, eps %.1f, %d "
        "points",
        result.level.threshold, result.cellThreshold, result.level.zeroBeam, result.trial.minLength,
        result.trial.maxLength, result.trial.eps, result.trial.minPts);
    const RunSeconds& s = result.seconds;
    print(
        "seconds       read %.1f, preprocess %.1f, axis %.1f, reconstruct %.1f, search %.1f, cell %.1f, "
        "index "
        "%.1f, total %.1f; %.0f MiB",
        s.read, s.preprocess, s.tiltAxis, s.reconstruct, s.search, s.cell, s.index, s.total, peakMemory());
}

}  // namespace vrk
