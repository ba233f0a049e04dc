#include "pipeline/batch/CrystalTable.h"

#include <cmath>
#include <ctime>
#include <nlohmann/json.hpp>
#include <utility>

#include "pipeline/base/Angle.h"
#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/batch/CsvTable.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<const char*, kInstrumentTerms> kTerms = {
    "axis_turn_deg", "ellipse_cos", "ellipse_sin", "radial", "tilt_scale", "axis_tilt_deg"};
constexpr std::array<bool, kInstrumentTerms> kIsAngle = {true, false, false, false, false, true};

std::optional<double> numberOf(const Json& json) {
    return json.is_number() ? std::optional(json.get<double>()) : std::nullopt;
}

/// The terms of the summary as the refinement had them.
SeriesCalibration geometryOf(const Json& json) {
    SeriesCalibration geometry;
    const Json& input = json.at("input");
    geometry.width = std::max(input.at("nx").get<int>(), input.at("ny").get<int>());
    geometry.pixelSize = input.at("pixel_size").get<double>();
    geometry.axisAngle = json.at("tilt_axis").at("angle_deg").get<double>();
    RefinedInstrument& instrument = geometry.instrument;
    instrument.valid = json.at("instrument").at("refined").get<bool>();
    for (const Json& term : json.at("instrument").at("terms"))
        for (std::size_t i = 0; i < kInstrumentTerms; ++i) {
            if (term.at("name") != kTerms[i]) continue;
            const double unit = kIsAngle[i] ? kDegree : 1.0;
            instrument.used[i] = true;
            instrument.model[static_cast<InstrumentTerm>(i)] = unit * term.at("value").get<double>();
            instrument.sigma[i] = unit * term.at("esd").get<double>();
            instrument.correlation[i] = term.at("correlation").get<double>();
            const auto at = static_cast<Eigen::Index>(i);
            instrument.covariance(at, at) = instrument.sigma[i] * instrument.sigma[i];
        }
    const Json& axis = json.at("tilt_axis");
    if (const auto sigma = numberOf(axis.value("refined_esd_deg", Json()))) {
        instrument.axisSigma = *sigma * kDegree;
        instrument.model[InstrumentTerm::AxisTurn] =
            (axis.at("refined_deg").get<double>() - geometry.axisAngle) * kDegree;
    }
    return geometry;
}

void takeIntensities(const Json& json, CrystalFacts& facts) {
    if (!json.is_object()) return;
    const Json& overall = json.at("overall");
    facts.completeness = overall.at("completeness").get<double>();
    facts.dMin = numberOf(overall.at("d_min"));
    facts.iOverSigma = numberOf(overall.at("i_over_sigma"));
    facts.rMeas = numberOf(overall.at("r_meas"));
    facts.ccHalf = numberOf(overall.at("cc_half"));
    const Json& groups = json.at("space_groups").at("candidates");
    if (!groups.empty()) facts.spaceGroup = groups.at(0).at("symbol").get<std::string>();
}

CrystalFacts factsOf(const Json& json) {
    CrystalFacts facts;
    const Json& cell = json.at("cell").at("conventional");
    facts.confidence = json.at("confidence").at("level").get<std::string>();
    facts.lattice = json.at("confidence").value("lattice", facts.confidence);
    facts.reasons = json.at("confidence").at("reasons").get<std::vector<std::string>>();
    facts.bravais = cell.at("bravais").get<std::string>();
    facts.cell.cell = cellParametersOf(cell);
    facts.cell.centring = json.at("cell").at("candidates").at(0).at("centring").get<std::string>().at(0);
    facts.sigma = cellParametersOf(json.at("cell").at("esd").at("conventional"));
    facts.volume = cell.at("volume").get<double>();
    facts.reflections = json.at("reflections").at("found").get<int>();
    facts.indexed = json.at("reflections").at("indexed").get<int>();
    facts.residual = json.at("reflections").at("residual_px").get<double>();
    facts.resolution = json.at("reflections").at("resolution").get<double>();
    facts.completeness = json.at("completeness").at("share").get<double>();
    facts.handedness = json.at("handedness").at("sense").get<int>();
    takeIntensities(json.at("intensities"), facts);
    facts.geometry = geometryOf(json);
    const Json& known = json.at("instrument").value("known", Json());
    facts.hadGeometry = !known.is_null();
    facts.axis = json.at("tilt_axis").at("refined_deg").get<double>();
    facts.axisSigma = numberOf(json.at("tilt_axis").value("refined_esd_deg", Json())).value_or(0.0);
    facts.seconds = json.at("seconds").at("total").get<double>();
    facts.memory = json.at("peak_memory_mib").get<double>();
    return facts;
}

/// "2026-11-22T08:55:01Z"
std::string timeText(std::int64_t nanoseconds) {
    const auto seconds = static_cast<std::time_t>(nanoseconds / 1'000'000'000);
    std::tm parts = {};
    if (nanoseconds == 0 || !gmtime_r(&seconds, &parts)) return "";
    std::array<char, 40> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

using Field = std::pair<const char*, Json>;

/// Rounded to what a table shows, so that it is read again as it was written.
Json rounded(double value, const char* format) {
    return std::isfinite(value) ? Json(std::strtod(formatted(format, value).c_str(), nullptr)) : Json();
}

Json roundedOrNull(const std::optional<double>& value, const char* format) {
    return value ? rounded(*value, format) : Json();
}

void addFacts(std::vector<Field>& fields, const std::optional<CrystalFacts>& found) {
    static const CrystalFacts kNone;
    const CrystalFacts& facts = found ? *found : kNone;
    const auto add = [&](const char* name, Json value) {
        fields.emplace_back(name, found ? std::move(value) : Json());
    };
    add("confidence", facts.confidence);
    add("bravais", facts.bravais);
    add("centring", std::string(1, facts.cell.centring));
    for (std::size_t i = 0; i < 6; ++i)
        add(kCellNames[i], rounded(facts.cell.cell[i], "%.4f"));
    add("volume", rounded(facts.volume, "%.2f"));
    add("reflections", facts.reflections);
    add("indexed", facts.indexed);
    add("residual_px", rounded(facts.residual, "%.3f"));
    add("resolution", rounded(facts.resolution, "%.3f"));
    add("completeness", rounded(facts.completeness, "%.4f"));
    add("axis_deg", rounded(facts.axis, "%.3f"));
    add("axis_esd_deg", facts.axisSigma > 0.0 ? rounded(facts.axisSigma, "%.3f") : Json());
    add("handedness", facts.handedness);
    add("d_min", roundedOrNull(facts.dMin, "%.3f"));
    add("i_over_sigma", roundedOrNull(facts.iOverSigma, "%.2f"));
    add("r_meas", roundedOrNull(facts.rMeas, "%.4f"));
    add("cc_half", roundedOrNull(facts.ccHalf, "%.4f"));
    add("space_group", facts.spaceGroup);
}

/// The columns of the table with their values; null for what a crystal does not have.
std::vector<Field> fieldsOf(const CrystalRow& row) {
    std::vector<Field> fields = {
        {"name", row.name}, {"series", row.series}, {"outcome", nameOf(row.record.outcome)}};
    addFacts(fields, row.facts);
    fields.emplace_back("cluster", row.cluster > 0 ? Json(row.cluster) : Json());
    fields.emplace_back("strain", row.cluster > 0 ? rounded(row.fromMiddle, "%.5f") : Json());
    fields.emplace_back("outlier", row.facts ? Json(row.isOutlier ? "yes" : "no") : Json());
    fields.emplace_back("recorded", timeText(row.record.stamp.modified));
    fields.emplace_back("content", row.record.content);
    fields.emplace_back("cause", row.record.cause);
    return fields;
}

std::string csvText(const Json& value) {
    if (value.is_null()) return "";
    return csvField(value.is_string() ? value.get<std::string>() : jsonText(value));
}

}  // namespace

CrystalFacts readFacts(const std::filesystem::path& result) {
    const std::filesystem::path path = result / "summary.json";
    const std::string text = textOfFile(path);
    try {
        return factsOf(parsedJson<Json>(text));
    } catch (const std::exception& error) {
        throw Failure(path.string() + " is damaged (" + error.what() + "); run the series again");
    }
}

std::string crystalsCsv(const std::vector<CrystalRow>& rows) {
    std::string text;
    const auto addLine = [&](const std::vector<Field>& fields, bool isHead) {
        for (std::size_t i = 0; i < fields.size(); ++i)
            text.append(i > 0 ? "," : "").append(isHead ? fields[i].first : csvText(fields[i].second));
        text += '\n';
    };
    addLine(fieldsOf({}), true);
    for (const CrystalRow& row : rows)
        addLine(fieldsOf(row), false);
    return text;
}

std::string costCsv(const std::vector<CrystalRow>& rows) {
    std::string text = "name,outcome,attempts,seconds,run_seconds,memory_mib,host\n";
    for (const CrystalRow& row : rows) {
        text += row.name + ',' + nameOf(row.record.outcome) +
                formatted(",%d,%.2f,%.2f,%.0f,", row.record.attempts, row.record.seconds,
                          row.facts ? row.facts->seconds : 0.0, row.facts ? row.facts->memory : 0.0) +
                csvField(row.record.host) + '\n';
    }
    return text;
}

std::string crystalsJson(const std::vector<CrystalRow>& rows, const CellClustering& clustering, double cut) {
    Json json = {{"format", "vrk crystals"}, {"version", 1}};
    json["crystals"] = Json::array();
    for (const CrystalRow& row : rows) {
        Json one = Json::object();
        for (const auto& [name, value] : fieldsOf(row))
            one[name] = value;
        one["reasons"] = row.facts ? Json(row.facts->reasons) : Json::array();
        json["crystals"].push_back(std::move(one));
    }
    std::vector<std::string> names;  // of the crystals that were clustered
    for (const CrystalRow& row : rows)
        if (row.facts) names.push_back(row.name);
    json["clusters"] = Json::array();
    for (const CellCluster& cluster : clustering.clusters) {
        Json one = {{"middle", names.at(cluster.middle)}, {"spread", rounded(cluster.spread, "%.5f")}};
        one["crystals"] = Json::array();
        for (const std::size_t crystal : cluster.crystals)
            one["crystals"].push_back(names.at(crystal));
        json["clusters"].push_back(std::move(one));
    }
    json["dendrogram"] = {{"metric", "strain"}, {"linkage", "average"}, {"cut", cut}};
    json["dendrogram"]["leaves"] = names;
    json["dendrogram"]["joins"] = Json::array();
    for (const ClusterJoin& join : clustering.joins)
        json["dendrogram"]["joins"].push_back(
            {join.first, join.second, rounded(join.distance, "%.6f"), join.crystals});
    return jsonText(json, 1) + '\n';
}

}  // namespace vrk
