#include "pipeline/run/OptionsJson.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "pipeline/base/JsonText.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

template <typename Number>
Json orNull(const std::optional<Number>& value) {
    return value ? Json(*value) : Json();
}

Json pathOrNull(const std::filesystem::path& path) {
    return path.empty() ? Json() : Json(path.string());
}

Json axisJson(const AxisChoice& axis) {
    using enum AxisChoice::Source;
    Json json = {{"from", axis.source == Given    ? "given"
                          : axis.source == AlongY ? "along y"
                          : axis.source == Search ? "search"
                                                  : "series"}};
    json["angle_deg"] = axis.source == Given ? Json(axis.angle) : Json();
    json["accuracy_deg"] = axis.accuracy;
    return json;
}

Json centreJson(const CentreChoice& centre) {
    using enum CentreChoice::Source;
    const bool isGiven = centre.source == Given;
    return {{"from", isGiven                   ? "given"
                     : centre.source == File   ? "file"
                     : centre.source == Middle ? "none"
                                               : "search"},
            {"x", isGiven ? Json(centre.x) : Json()},
            {"y", isGiven ? Json(centre.y) : Json()},
            {"file", pathOrNull(centre.file)}};
}

Json searchJson(const SearchOptions& search) {
    return {{"threshold", orNull(search.threshold)},   {"min_voxels", orNull(search.minVoxels)},
            {"max_voxels", orNull(search.maxVoxels)},  {"zero_beam", orNull(search.zeroBeam)},
            {"resolution", orNull(search.resolution)}, {"reflection_centre", orNull(search.centre)}};
}

Json cellJson(const CellOptions& cell) {
    return {{"min_length", orNull(cell.minLength)},
            {"max_length", orNull(cell.maxLength)},
            {"eps", orNull(cell.eps)},
            {"min_points", orNull(cell.minPoints)},
            {"refine_clusters", orNull(cell.refineClusters)},
            {"angle_a", orNull(cell.angleA)},
            {"angle_b", orNull(cell.angleB)},
            {"det_limit", orNull(cell.detLimit)},
            {"grid_size", orNull(cell.gridSize)},
            {"full_space", cell.fullSpace},
            {"clustering", nameOf(cell.clustering)}};
}

}  // namespace

std::string optionsJson(const RunOptions& options) {
    const IntensityChoice& intensities = options.intensities;
    Json json;
    json["tilt_axis"] = axisJson(options.axis);
    json["centre"] = centreJson(options.centre);
    json["pixel_size"] = orNull(options.pixelSize);
    json["voltage_kv"] = orNull(options.kiloVolts);
    json["fine_calibration"] = pathOrNull(options.fineCalibration);
    json["distortion"] = options.instrument ? pathOrNull(options.instrument->file) : Json();
    json["search"] = searchJson(options.search);
    json["cell"] = cellJson(options.cell);
    json["intensities"] = {{"wanted", intensities.wanted},
                           {"d_min", orNull(intensities.dMin)},
                           {"gain", orNull(intensities.gain)},
                           {"mode", intensities.mode ? Json(nameOf(*intensities.mode)) : Json()}};
    json["crystals"] = options.crystals;
    return jsonText(json);
}

}  // namespace vrk
