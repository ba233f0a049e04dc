#include "pipeline/run/RunSummary.h"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numbers>
#include <string>

#include "foundation/Version.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/formats/CentreFile.h"
#include "pipeline/run/OptionsJson.h"
#include "pipeline/run/ResultFiles.h"
#include "pipeline/run/SeenReflections.h"
#include "pipeline/run/detail/ReductionJson.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

Json characterJson(const LatticeCharacter& character) {
    Json json = cellParametersJson<Json>(character.measured);
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

Json columnsJson(const Eigen::Matrix3d& vectors) {
    Json json = Json::array();
    for (const auto& vector : vectors.colwise())
        json.push_back({vector[0], vector[1], vector[2]});
    return json;
}

Json cellJson(const RunResult& result) {
    Json cell;
    const RefinedLattice& free = result.indexed.refined.lattice;
    cell["reduced"] = cellParametersJson<Json>(free.cell);
    cell["reduced"]["volume"] = free.volume;
    const RefinedLattice& tied = result.indexed.conventional;
    cell["conventional"] = cellParametersJson<Json>(tied.cell);
    cell["conventional"]["volume"] = tied.volume;
    cell["conventional"]["bravais"] = LATTICE::shortName(result.indexed.symmetry().bravaisType);
    cell["conventional"]["misfit_deg"] = result.indexed.symmetry().qualityIndex;
    cell["candidates"] = Json::array();
    for (const LatticeCharacter& character : result.indexed.characters)
        cell["candidates"].push_back(characterJson(character));
    cell["reciprocal_vectors_px"] = columnsJson(free.lattice.basis);
    cell["esd"] = {{"reduced", cellParametersJson<Json>(free.cellSigma)},
                   {"conventional", cellParametersJson<Json>(tied.cellSigma)}};
    cell["esd"]["reduced"]["volume"] = free.volumeSigma;
    cell["esd"]["conventional"]["volume"] = tied.volumeSigma;
    return cell;
}

/// One number of the cost of every stage.
Json costJson(const RunSeconds& cost, double StageCost::*number) {
    return {{"read", cost.read.*number},          {"preprocess", cost.preprocess.*number},
            {"tilt_axis", cost.tiltAxis.*number}, {"reconstruct", cost.reconstruct.*number},
            {"search", cost.search.*number},      {"cell", cost.cell.*number},
            {"index", cost.index.*number},        {"integrate", cost.integrate.*number}};
}

Json inputJson(const std::filesystem::path& series, const SeriesFacts& facts) {
    return {{"path", series.string()},      {"nx", facts.size[0]},           {"ny", facts.size[1]},
            {"nz", facts.size[2]},          {"tilt_first", facts.tiltFirst}, {"tilt_last", facts.tiltLast},
            {"pixel_size", facts.pixelSize}};
}

/// Files that were read, so that they are known again.
Json inputsJson(const std::vector<RecordedFile>& inputs) {
    Json json = Json::array();
    for (const auto& [path, checksum, state] : inputs)
        json.push_back({{"path", path.string()},
                        {"bytes", checksum.bytes},
                        {"crc32", formatted("%08x", static_cast<unsigned>(checksum.crc32))},
                        {"sha256", checksum.sha256}});
    return json;
}

Json scoresJson(const std::vector<TiltAxisScore>& scores) {
    Json json = Json::array();
    for (const TiltAxisScore& score : scores)
        if (score.evaluated)
            json.push_back({{"angle_deg", static_cast<double>(score.angle)}, {"score", score.variance}});
    return json;
}

Json reflectionsJson(const Indexed& indexed) {
    const RefinedLattice& lattice = indexed.refined.lattice;
    const std::vector<FoundReflection>& found = indexed.level.reflections;
    const auto cut =
        std::count_if(found.begin(), found.end(), [](const FoundReflection& r) { return r.cut; });
    return {{"found", lattice.reflections},
            {"cut", cut},
            {"indexed", lattice.indexed},
            {"fraction_indexed", lattice.fraction()},
            {"different_indices", conventionalReflections(indexed).size()},
            {"resolution", indexed.resolution},
            {"residual_px", lattice.rms}};
}

Json completenessJson(const Completeness& completeness, double pixelSize) {
    const auto spacing = [&](double radius) {
        return radius > 0.0 ? Json(1e10 / (radius * pixelSize)) : Json();
    };
    Json json = {{"nodes", completeness.all.nodes},
                 {"found", completeness.all.found},
                 {"share", completeness.all.share()},
                 {"core_share", completeness.core.share()},
                 {"evenness", completeness.evenness()},
                 {"limit", spacing(completeness.limit)},
                 {"half_limit", spacing(completeness.halfRadius)}};
    json["shells"] = Json::array();
    for (std::size_t i = 0; i < Completeness::kShells; ++i) {
        const double outer =
            completeness.limit * std::cbrt(static_cast<double>(i + 1) / Completeness::kShells);
        const NodeCount& shell = completeness.shells[i];
        json["shells"].push_back(
            {{"spacing", spacing(outer)}, {"nodes", shell.nodes}, {"found", shell.found}});
    }
    json["parities"] = Json::array();
    for (const NodeCount& parity : completeness.parities)
        json["parities"].push_back({{"nodes", parity.nodes}, {"found", parity.found}});
    return json;
}

/// What was known of the instrument and applied.
Json knownJson(const std::optional<InstrumentCalibration>& known) {
    if (!known) return nullptr;
    Json json = {{"file", known->file.string()}, {"terms", Json::array()}};
    for (const auto& [name, term] : valuesOf(*known))
        json["terms"].push_back({{"name", name}, {"value", term.value}, {"esd", term.sigma}});
    return json;
}

Json instrumentJson(const RefinedInstrument& instrument, const SeriesFacts& facts) {
    static constexpr std::array<const char*, kInstrumentTerms> kTerms = {
        "axis_turn_deg", "ellipse_cos", "ellipse_sin", "radial", "tilt_scale", "axis_tilt_deg"};
    static constexpr std::array<double, kInstrumentTerms> kUnits = {
        180.0 / std::numbers::pi, 1.0, 1.0, 1.0, 1.0, 180.0 / std::numbers::pi};
    Json json = {{"refined", instrument.valid},
                 {"residual_before_px", instrument.rmsBefore},
                 {"known", knownJson(facts.instrument)}};
    json["terms"] = Json::array();
    for (std::size_t t = 0; t < kInstrumentTerms; ++t) {
        if (!instrument.used[t]) continue;
        json["terms"].push_back({{"name", kTerms[t]},
                                 {"value", kUnits[t] * instrument.model[static_cast<InstrumentTerm>(t)]},
                                 {"esd", kUnits[t] * instrument.sigma[t]},
                                 {"correlation", instrument.correlation[t]}});
    }
    return json;
}

Json centresJson(const ReciprocalVolume& volume) {
    Json json = Json::array();
    for (std::size_t i = 0; i < volume.centres.size(); ++i) {
        const PatternCentre& centre = volume.centres[i];
        json.push_back({{"tilt", volume.tilts[i]},
                        {"x", centre.x},
                        {"y", centre.y},
                        {"esd", centre.error},
                        {"from", nameOf(centre.source)},
                        {"jump", centre.jumped},
                        {"doubtful", centre.doubtful}});
    }
    return json;
}

Json confidenceJson(const RunResult& result) {
    const LatticeCandidate& best = result.lattice.best;
    Json json = {{"level", nameOf(result.indexed.verdict.level)},
                 {"lattice", nameOf(result.indexed.verdict.lattice)},
                 {"evidence", best.score.evidence},
                 {"fraction_by_chance", best.score.chance},
                 {"reasons", result.indexed.verdict.reasons},
                 {"runner_up", nullptr}};
    if (const auto& other = result.lattice.runnerUp)
        json["runner_up"] = {{"evidence", other->score.evidence},
                             {"volume_ratio", best.lattice.cellVolume() / other->lattice.cellVolume()}};
    return json;
}

Json crystalJson(const Indexed& indexed, const std::optional<Intensities>& intensities, double share) {
    const RefinedLattice& lattice = indexed.refined.lattice;
    Json json = {{"strong_share", share},
                 {"bravais", LATTICE::shortName(indexed.symmetry().bravaisType)},
                 {"cell", cellParametersJson<Json>(indexed.conventional.cell)},
                 {"reduced", cellParametersJson<Json>(lattice.cell)},
                 {"confidence", nameOf(indexed.verdict.level)},
                 {"reasons", indexed.verdict.reasons},
                 {"reflections", {{"found", lattice.reflections}, {"indexed", lattice.indexed}}},
                 {"residual_px", lattice.rms}};
    json["reciprocal_vectors_px"] = columnsJson(lattice.lattice.basis);
    json["reciprocal_vectors"] = columnsJson(reciprocalBase(indexed));
    json["same_cell"] = true;
    json["turn_deg"] = 0.0;
    json["observations"] = nullptr;
    if (intensities) json["observations"] = intensities->reduction.observations.size();
    return json;
}

Json crystalsJson(const RunResult& result) {
    Json json = Json::array();
    json.push_back(crystalJson(result.indexed, result.intensities, result.crystals.firstShare));
    for (const FurtherCrystal& other : result.crystals.others) {
        json.push_back(crystalJson(other.indexed, other.intensities, other.strongShare));
        json.back()["same_cell"] = other.sameCell;
        json.back()["turn_deg"] = other.turn ? Json(*other.turn) : Json(nullptr);
    }
    return json;
}

/// What each frame shows of the first crystal.
Json framesJson(const Intensities& intensities) {
    const IntegrationResult& integration = intensities.integration;
    const std::vector<FramePose>& poses = integration.fit.geometry.frames;
    std::vector<int> seen(poses.size(), 0);
    for (const ObservedPlace& place : integration.places)
        ++seen[place.frame];
    std::vector<int> spots(poses.size(), 0);
    std::vector<double> counts(poses.size(), 0.0);
    for (std::size_t i = 0; i < integration.fitted.size(); ++i) {
        if (!(integration.fitted[i].variance > 0)) continue;
        const std::uint32_t frame = integration.prediction.spots[i].frame;
        ++spots[frame];
        counts[frame] += static_cast<double>(integration.fitted[i].counts);
    }
    const double dMin = std::max(integration.dMin, 0.01);
    constexpr double kLowResolution = 1e4;
    Json json = Json::array();
    for (std::size_t i = 0; i < poses.size(); ++i) {
        const auto frame = static_cast<double>(i);
        json.push_back({{"tilt", poses[i].tilt / kDegree},
                        {"predicted", spots[i]},
                        {"observed", seen[i]},
                        {"counts", counts[i]},
                        {"scale", intensities.reduction.scales.factor(frame, kLowResolution)},
                        {"scale_at_d_min", intensities.reduction.scales.factor(frame, dMin)}});
    }
    return json;
}

Json intensitiesJson(const Intensities& intensities) {
    const IntegrationResult& integration = intensities.integration;
    const GeometryFit& fit = integration.fit;
    const DataReduction& reduction = intensities.reduction;
    Json json;
    json["mode"] = {{"name", nameOf(fit.rocking.mode)},
                    {"found", integration.modeSource != ModeSource::Option},
                    {"by", nameOf(integration.modeSource)}};
    if (fit.rocking.mode == RotationMode::Continuous)
        json["mode"]["rotation_deg"] = fit.geometry.frames.front().rotation / kDegree;
    if (fit.rocking.precession > 0.0) json["mode"]["precession_deg"] = fit.rocking.precession / kDegree;
    json["cell"] = cellParametersJson<Json>(fit.cell);
    json["esd"] = cellParametersJson<Json>(fit.cellSigma);
    json["geometry"] = {{"axis_deg", fit.geometry.axisAngle / kDegree},
                        {"axis_pitch_deg", fit.geometry.axisPitch / kDegree},
                        {"terms", fit.terms},
                        {"residual_px", fit.residual},
                        {"spots", fit.spots},
                        {"curves", fit.curves},
                        {"outliers", fit.outliers.size()}};
    json["rocking"] = {{"width", fit.rocking.width},
                       {"width_esd", fit.widthSigma},
                       {"mosaicity_deg", fit.rocking.mosaicity / kDegree},
                       {"mosaicity_esd_deg", fit.mosaicitySigma / kDegree}};
    json["detector"] = {{"gain", integration.noise.gain},
                        {"saturation", integration.saturation},
                        {"dead_pixels", integration.deadPixels},
                        {"spot_sigma_px", integration.extent.sigma}};
    json["resolution"] = {{"d_min", integration.dMin},
                          {"found", integration.resolutionFound},
                          {"by_cc_half", reduction.statistics.limitByCcHalf},
                          {"by_i_over_sigma", reduction.statistics.limitByISigma}};
    json["reflections"] = {{"predicted", integration.reflections.size()},
                           {"observations", reduction.observations.size()},
                           {"outliers", reduction.outliers},
                           {"unique", reduction.merged.size()}};
    json["error_model"] = {{"a", reduction.errors.a}, {"b", reduction.errors.b}};
    const Json reduced = detail::reductionJson(reduction);
    for (const char* key : {"laue", "space_groups", "overall", "shells"})
        json[key] = reduced.at(key);
    json["frames"] = framesJson(intensities);
    json["wilson"] = reduced.at("wilson");
    json["friedel_r_int"] = reduced.at("friedel_r_int");
    return json;
}

Json parametersJson(const RunResult& result) {
    const Level& level = result.indexed.level;
    const CellSearchTrial& trial = result.lattice.best.trial;
    const bool hasRadius = trial.clustering != ClusteringMethod::FSC;  // which finds its own
    return {{"threshold", level.threshold},
            {"cell_threshold", result.indexed.cellThreshold},
            {"zero_beam", level.zeroBeam},
            {"min_voxels", level.minVoxels},
            {"min_length", trial.minLength},
            {"max_length", trial.maxLength},
            {"clustering", nameOf(trial.clustering)},
            {"eps", hasRadius ? Json(trial.eps) : Json(nullptr)},
            {"min_points", hasRadius ? Json(trial.minPts) : Json(nullptr)},
            {"voltage_kv", result.facts().kiloVolts}};
}

Json profileJson(const RunProfile& profile) {
    Json steps = Json::array();
    for (const StepProfile& step : profile.steps)
        steps.push_back({{"name", step.name},
                         {"times", step.times},
                         {"seconds", step.seconds},
                         {"moved_bytes", step.movedBytes},
                         {"needed_bytes", step.neededBytes},
                         {"share_of_copying", step.shareOfCopying},
                         {"resident_bytes", step.residentBytes}});
    Json loops = Json::array();
    for (const SharedLoopCost& loop : profile.loops)
        loops.push_back({{"items", loop.items}, {"seconds", loop.all}, {"longest_seconds", loop.longest}});
    return {{"copy_bytes_per_second", profile.copyRate},
            {"steps", steps},
            {"seconds_alone", profile.secondsAlone},
            {"loops", loops}};
}

}  // namespace

double peakMemory() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

std::string summaryJson(const RunRecord& record, const RunResult& result,
                        const std::vector<std::string>& warnings, const std::vector<std::string>& files) {
    const RefinedPositions& refined = result.indexed.refined;
    const VoxMRCData& voxels = *result.volume.voxels;
    Json json;
    json["program"] = {{"version", VRK::kVersion},
                       {"command", record.command},
                       {"options", parsedJson<Json>(optionsJson(result.options))}};
    json["input"] = inputJson(record.series, result.facts());
    json["inputs"] = inputsJson(record.inputs);
    json["tilt_axis"] = {{"angle_deg", result.axis.angle}, {"source", result.axis.source}};
    if (result.axis.uncertainty > 0.0) json["tilt_axis"]["uncertainty_deg"] = result.axis.uncertainty;
    json["tilt_axis"]["refined_deg"] = result.refinedAxis();
    const double axisSigma = result.refinedAxisSigma();
    json["tilt_axis"]["refined_esd_deg"] = std::isfinite(axisSigma) ? Json(axisSigma) : Json();
    if (result.axis.stated) json["tilt_axis"]["stated_deg"] = *result.axis.stated;
    if (!result.axis.scores.empty()) json["tilt_axis"]["scores"] = scoresJson(result.axis.scores);
    json["instrument"] = instrumentJson(result.indexed.instrument, result.facts());
    const CurvatureScale& curvature = result.indexed.curvature;
    json["instrument"]["pixel_by_curvature"] =
        curvature.sigma > 0.0 ? Json{{"factor", curvature.factor}, {"su", curvature.sigma}} : Json();
    json["centres"] = centresJson(result.volume);
    json["volume"] = {{"dims", {voxels.GetWidth(), voxels.GetHeight(), voxels.GetDepth()}}};
    json["reflections"] = reflectionsJson(result.indexed);
    json["completeness"] = completenessJson(result.indexed.completeness, result.facts().pixelSize);
    json["cell"] = cellJson(result);
    json["confidence"] = confidenceJson(result);
    json["crystals"] = crystalsJson(result);
    // The residuals stand in the order of the sense, which is the other way round.
    json["handedness"] = {{"sense", refined.handedness()},
                          {"decided", refined.decided},
                          {"residual_plus_px", refined.residual[1]},
                          {"residual_minus_px", refined.residual[0]}};
    json["intensities"] = result.intensities ? intensitiesJson(*result.intensities) : Json();
    json["parameters"] = parametersJson(result);
    json["seconds"] = costJson(result.seconds, &StageCost::seconds);
    json["seconds"]["total"] = result.seconds.total.seconds;
    json["memory_mib"] = costJson(result.seconds, &StageCost::memory);
    json["peak_memory_mib"] = peakMemory();
    if (record.profile) json["profile"] = profileJson(*record.profile);
    json["warnings"] = warnings;
    json["files"] = files;
    return jsonText(json, 2);
}

void writeSummary(const std::filesystem::path& path, const std::string& summary) {
    OutputFile file(path);
    std::ofstream stream(file.path());
    stream << summary << '\n';
    stream.close();
    if (!stream) throw Failure("cannot write " + path.string() + "; check the free space");
    file.commit();
}

}  // namespace vrk
