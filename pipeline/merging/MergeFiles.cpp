#include "pipeline/merging/MergeFiles.h"

#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "foundation/Version.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/base/CellJson.h"
#include "pipeline/base/ChecksumList.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/base/ResultFolder.h"
#include "pipeline/formats/ReflectionFormats.h"
#include "pipeline/run/detail/ReductionJson.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kMergeFile = "merge.json";

ReflectionSet describedSet(const CrystalMerge& merge, const CrystalText& text) {
    ReflectionSet set;
    set.cell = merge.cell.cell;
    set.cellSigma = merge.cellSigma;
    set.centring = merge.cell.centring;
    set.wavelength = EwaldCurvature::wavelength(merge.kiloVolts);
    set.title = text.title;
    set.formula = text.formula;
    if (!merge.data.spaceGroups.candidates.empty())
        set.spaceGroup = merge.data.spaceGroups.candidates.front().symbol;
    return set;
}

ReflectionSet unmergedSet(const CrystalMerge& merge, const CrystalText& text) {
    ReflectionSet set = describedSet(merge, text);
    for (const Observation& one : merge.data.observations)
        if (!one.outlier)
            set.reflections.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma});
    return set;
}

ReflectionSet mergedSet(const CrystalMerge& merge, const CrystalText& text) {
    ReflectionSet set = describedSet(merge, text);
    for (const MergedReflection& one : merge.data.merged) {
        set.reflections.push_back({one.hkl[0], one.hkl[1], one.hkl[2], one.intensity, one.sigma});
        set.amplitudes.push_back({one.amplitude.value, one.amplitude.sigma});
    }
    return set;
}

/// A text as a field of a table of commas.
std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"') result += '"';
        result += c == '\n' || c == '\r' ? ' ' : c;
    }
    return result + '"';
}

std::string crystalTable(const CrystalMerge& merge) {
    std::string table =
        "crystal,used,bravais,a,b,c,alpha,beta,gamma,strain,ways,correlation,runner_up,scale,b_relative,"
        "delta_cc_half,observations,outliers,reason\n";
    for (const MergedCrystal& one : merge.crystals) {
        table += quoted(one.name) + (one.used ? ",1," : ",0,") + one.bravais;
        for (const double value : one.cell.cell)
            table += formatted(",%.5g", value);
        table += formatted(",%.5f,%d,%.4f,%.4f,%.5g,%.4f,%.5f,%d,%d,", one.fromMiddle, one.indexing.ways,
                           one.indexing.correlation, one.indexing.runnerUp, std::exp(one.scale.k),
                           one.scale.b, one.deltaCcHalf, one.observations, one.outliers);
        table += quoted(one.reason) + '\n';
    }
    return table;
}

Json cellsJson(const CellClustering& cells) {
    Json json = {{"metric", "strain"}, {"clusters", Json::array()}, {"joins", Json::array()}};
    for (const CellCluster& cluster : cells.clusters)
        json["clusters"].push_back(
            {{"crystals", cluster.crystals}, {"middle", cluster.middle}, {"spread", cluster.spread}});
    for (const ClusterJoin& join : cells.joins)
        json["joins"].push_back({{"first", join.first},
                                 {"second", join.second},
                                 {"distance", join.distance},
                                 {"crystals", join.crystals}});
    return json;
}

Json crystalJson(const MergedCrystal& one) {
    Json json = {{"name", one.name}, {"used", one.used}, {"reason", one.reason}, {"bravais", one.bravais}};
    json["cell"] = cellParametersJson<Json>(one.cell.cell);
    json["strain"] = one.fromMiddle;
    json["base"] = Json::array();
    for (const auto& row : one.indexing.base.rowwise())
        json["base"].push_back({row[0], row[1], row[2]});
    json["ways"] = one.indexing.ways;
    json["correlation"] = one.indexing.correlation;
    json["runner_up"] = one.indexing.runnerUp;
    json["scale"] = std::exp(one.scale.k);
    json["scale_esd"] = std::exp(one.scale.k) * one.scale.sigmaOfK;
    json["b"] = one.scale.b;
    json["b_esd"] = one.scale.sigmaOfB;
    json["common"] = one.scale.common;
    json["delta_cc_half"] = one.deltaCcHalf;
    json["observations"] = one.observations;
    json["outliers"] = one.outliers;
    return json;
}

}  // namespace

std::vector<std::filesystem::path> writeMergedFiles(const CrystalMerge& merge, const CrystalText& text,
                                                    const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    const auto write = [&](const char* name,
                           const std::function<void(const std::filesystem::path&)>& writer) {
        OutputFile file(folder / name);
        writer(file.path());
        file.commit();
        files.push_back(folder / name);
    };
    const ReflectionSet merged = mergedSet(merge, text), unmerged = unmergedSet(merge, text);
    write("merged.hkl", [&](const auto& path) { writeShelx(merged, path); });
    write("reflections.hkl", [&](const auto& path) { writeShelx(unmerged, path); });
    write("crystal.ins", [&](const auto& path) { writeShelxInstructions(unmerged, path); });
    write("merged.mtz", [&](const auto& path) { writeMtz(merged, path); });
    write("merged.cif", [&](const auto& path) { writeCif(merged, path); });
    write("crystals.csv", [&](const auto& path) { writeText(crystalTable(merge), path); });
    return files;
}

void refuseFolderOfRun(const std::filesystem::path& folder) {
    const std::optional<std::string> text = wholeFile(folder / ResultFolder::kSummary);
    if (!text) return;
    const auto summary = parsedJson<Json>(*text);
    if (!summary.is_object() || !summary.contains("merge"))
        throw Failure(folder.string() + " holds the result of a run; give another folder with --output",
                      FailureKind::Usage);
}

std::string mergeJson(const CrystalMerge& merge, const std::string& command,
                      const std::vector<std::string>& warnings) {
    Json json;
    json["program"] = {{"version", VRK::kVersion}, {"command", command}};
    json["cell"] = cellParametersJson<Json>(merge.cell.cell);
    json["cell"]["bravais"] = merge.bravais;
    json["cell"]["esd"] = cellParametersJson<Json>(merge.cellSigma);
    json["voltage_kv"] = merge.kiloVolts;
    json["cells"] = cellsJson(merge.cells);
    json["crystals"] = Json::array();
    for (const MergedCrystal& one : merge.crystals)
        json["crystals"].push_back(crystalJson(one));
    Json& intensities = json["intensities"];
    const DataReduction& data = merge.data;
    intensities["d_min"] = merge.dMin;
    intensities["by_cc_half"] = data.statistics.limitByCcHalf;
    intensities["by_i_over_sigma"] = data.statistics.limitByISigma;
    intensities["observations"] = data.observations.size();
    intensities["outliers"] = data.outliers;
    intensities["unique"] = data.merged.size();
    intensities["cc_half_of_crystals"] = merge.ccHalf;
    intensities["error_model"] = {{"a", data.errors.a}, {"b", data.errors.b}};
    intensities.update(detail::reductionJson(data));
    json["growth"] = Json::array();
    for (const GrowthStep& step : merge.growth)
        json["growth"].push_back({{"crystal", step.crystal},
                                  {"completeness", step.completeness},
                                  {"redundancy", step.redundancy},
                                  {"cc_half", std::isfinite(step.ccHalf) ? Json(step.ccHalf) : Json()}});
    json["warnings"] = warnings;
    return jsonText(json, 2);
}

void writeMergeSummary(const std::string& json, const std::string& command, std::vector<std::string> files,
                       const std::filesystem::path& folder) {
    writeText(json + '\n', folder / kMergeFile);
    files.emplace_back(kMergeFile);
    files.emplace_back(kChecksumFile);
    const Json summary = {{"program", {{"version", VRK::kVersion}, {"command", command}}},
                          {"merge", kMergeFile},
                          {"files", files}};
    writeText(jsonText(summary, 2) + '\n', folder / ResultFolder::kSummary);
}

}  // namespace vrk
