#include "pipeline/formats/CellEvaluationFiles.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "pipeline/base/CellJson.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

const char* nameOf(CellEvaluation::Shape shape) {
    switch (shape) {
        case CellEvaluation::Shape::Rod:
            return "rod";
        case CellEvaluation::Shape::Disc:
            return "disc";
        case CellEvaluation::Shape::Compact:
            break;
    }
    return "compact";
}

const char* nameOf(BaseVectorVerdict verdict) {
    switch (verdict) {
        case BaseVectorVerdict::A:
            return "a";
        case BaseVectorVerdict::B:
            return "b";
        case BaseVectorVerdict::C:
            return "c";
        case BaseVectorVerdict::NearA:
            return "near_a";
        case BaseVectorVerdict::OppositeToA:
            return "opposite_to_a";
        case BaseVectorVerdict::NearB:
            return "near_b";
        case BaseVectorVerdict::OppositeToB:
            return "opposite_to_b";
        case BaseVectorVerdict::InPlane:
            return "in_plane";
        case BaseVectorVerdict::LongerThanNeeded:
            break;
    }
    return "longer_than_needed";
}

Json toJson(const CellEvaluation::ClusterEntry& c) {
    return {{"label", c.label}, {"points", c.points},       {"centre", c.centre}, {"spread", c.spread},
            {"axis", c.axis},   {"shape", nameOf(c.shape)}, {"hkl", c.hkl},       {"distance", c.distance}};
}

Json toJson(const CellEvaluation::Candidate& c) {
    return {{"label", c.label}, {"length", c.length}, {"verdict", nameOf(c.verdict)}, {"value", c.value}};
}

Json toJson(const CellEvaluation::Shell& s) {
    return {{"from", s.from},
            {"to", s.to},
            {"resolution", s.resolution > 0.0 ? Json(s.resolution) : Json(nullptr)},
            {"reflections", s.reflections},
            {"indexed", s.indexed},
            {"mean", s.mean},
            {"outward", s.along},
            {"rms", s.rms},
            {"largest", s.largest}};
}

Json toJson(const LatticeCharacter& s) {
    return {{"bravais", LATTICE::shortName(s.bravaisType)},
            {"character", s.number},
            {"misfit_deg", s.qualityIndex},
            {"misfit_length", s.lengthMisfit},
            {"cell", cellParametersJson<Json>(s.measured)}};
}

template <typename Entries>
Json listOf(const Entries& entries) {
    Json list = Json::array();
    for (const auto& entry : entries)
        list.push_back(toJson(entry));
    return list;
}

Json toJson(const CellEvaluation& e) {
    Json json;
    json["parameters"] = {{"min_length", e.minLength}, {"max_length", e.maxLength}, {"eps", e.eps},
                          {"min_points", e.minPts},    {"angle_a", e.angleA},       {"angle_b", e.angleB},
                          {"det_limit", e.detLimit}};
    json["reflections"] = e.reflections;
    json["difference_vectors"] = e.diffVectors;
    json["clustering"] = e.method;
    json["noise_vectors"] = e.noiseVectors;
    json["clusters"] = listOf(e.clusters);
    json["choice"] = {
        {"complete", e.hasChoice}, {"index", e.choiceIndex}, {"candidates", listOf(e.candidates)}};
    json["reciprocal_vectors_px"] = e.base;
    json["pixel_size"] = e.pixelSize > 0.0 ? Json(e.pixelSize) : Json(nullptr);
    json["reduction"] = {{"cell", cellParametersJson<Json>(e.reducedCell)},
                         {"steps", e.niggliSteps},
                         {"is_niggli_cell", e.isNiggli}};
    json["symmetries"] = listOf(e.symmetries);
    json["displacements"] = {{"radius_px", e.radius}, {"shells", listOf(e.shells)}, {"all", toJson(e.all)}};
    return json;
}

}  // namespace

std::vector<std::filesystem::path> writeEvaluation(const CellEvaluation& evaluation,
                                                   const std::filesystem::path& path) {
    if (path.extension() == ".json")
        throw Failure("the report " + path.string() +
                          " is a text, and its JSON goes beside it; give it another extension, such as .txt",
                      FailureKind::Usage);
    std::filesystem::path jsonPath = path;
    jsonPath.replace_extension(".json");
    OutputFile text(path);
    OutputFile json(jsonPath);
    std::ofstream file(json.path());
    file << jsonText(toJson(evaluation), 1) << '\n';
    file.close();
    if (!file || !evaluation.writeText(text.path().string()))
        throw Failure("cannot write the report " + path.string() + "; check the folder and the free space");
    text.commit();
    json.commit();
    return {path, jsonPath};
}

}  // namespace vrk
