#include "pipeline/simulation/SimulationTruth.h"

#include <nlohmann/json.hpp>
#include <string>

#include "pipeline/base/CellJson.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/simulation/detail/SettingsJson.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

template <class Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

}  // namespace

std::string SimulationTruth::toJson() const {
    Json conventional = cellParametersJson<Json>(conventionalCell);
    conventional["centring"] = std::string(1, centring);
    Json truth = {
        {"cell", {{"conventional", conventional}, {"primitive", cellParametersJson<Json>(primitiveCell)}}},
        {"orientation_matrix", orientation},
        {"second_orientation_matrix", orNull(secondOrientation)},
        {"reciprocal_vectors_px", {{"conventional", conventionalVectors}, {"primitive", primitiveVectors}}},
        {"tilt_axis_deg", axis},
        {"axis_tilt_deg", axisTilt},
        {"pixel_size", pixelSize},
        {"voltage_kv", kilovolts},
        {"wavelength", wavelength},
        {"handedness", handedness},
        {"tilts", tilts},
        {"centres", centres},
        {"blank_frames", blankFrames},
        {"reflections_in_sphere", reflectionsInSphere},
        {"reflections_recorded", reflectionsRecorded},
        {"stated",
         {{"tilts", statedTilts},
          {"tilt_axis_deg", orNull(statedAxis)},
          {"rotation_deg", orNull(settings.stated.rotation)},
          {"pixel_size", statedPixelSize},
          {"voltage_kv", statedKilovolts}}},
        {"settings", detail::settingsJson(settings)}};
    for (const SimulatedReflection& one : reflections)
        truth["reflections"].push_back({{"hkl", {one.h, one.k, one.l}},
                                        {"position", one.position},
                                        {"intensity", one.intensity},
                                        {"time", one.time},
                                        {"counts", one.intensity * one.time},
                                        {"peak_counts", one.peakCounts}});
    return jsonText(truth, 1);
}

}  // namespace vrk
