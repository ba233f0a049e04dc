#include "pipeline/run/RunFolder.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "indexing/EwaldCurvature.h"
#include "indexing/ReflectionPositions.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/formats/PeakList.h"
#include "processing/SamplingGeometry.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kSummary = "summary.json";

LATTICE::BravaisTypes typeOf(const std::string& name) {
    using enum LATTICE::BravaisTypes;
    for (const auto type : {cP, cI, cF, tP, tI, hP, hR, oP, oI, oC, oF, mP, mC})
        if (name == LATTICE::shortName(type)) return type;
    return aP;
}

Eigen::Matrix3d matrixFrom(const Json& rows) {
    Eigen::Matrix3d matrix;
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            matrix(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(j)) =
                rows.at(i).at(j).get<double>();
    return matrix;
}

/// Takes over what the summary says. \returns the tilts of the patterns, degrees
std::vector<float> takeSummary(const Json& json, CalibrationInput& input) {
    input.axisAngle = json.at("tilt_axis").at("angle_deg").get<double>();
    // The side of the sphere, which the summary states, is opposite to the sense of the positions.
    input.sense = -std::clamp(json.at("handedness").at("sense").get<int>(), -1, 1);
    input.wavelength = EwaldCurvature::wavelength(json.at("parameters").at("voltage_kv").get<double>());
    input.lattice.pixelSize = json.at("input").at("pixel_size").get<double>();
    const Json& cell = json.at("cell");
    input.lattice.basis = matrixFrom(cell.at("reciprocal_vectors_px")).transpose();
    input.type = typeOf(cell.at("conventional").at("bravais").get<std::string>());
    input.toConventional = matrixFrom(cell.at("candidates").at(0).at("transformation"));
    std::vector<float> tilts;
    for (const Json& centre : json.at("centres"))
        tilts.push_back(centre.at("tilt").get<float>());
    return tilts;
}

}  // namespace

RunStatement readRunSummary(std::string_view text, const std::filesystem::path& folder) {
    const auto json = parsedJson<Json>(text);
    RunStatement statement;
    statement.input.name = folder.string();
    try {
        statement.tilts = takeSummary(json, statement.input);
        if (json.at("instrument").contains("known") && !json["instrument"]["known"].is_null())
            throw Failure(folder.string() +
                          " was made with --distortion, its reflections do not show the instrument any more; "
                          "give the series itself");
    } catch (const Json::exception&) {
        throw Failure((folder / kSummary).string() +
                      " is not complete; run the series again, or give it itself");
    }
    return statement;
}

CalibrationInput readRunFolder(const std::filesystem::path& folder) {
    const std::optional<std::string> text = wholeFile(folder / kSummary);
    if (!text)
        throw Failure(folder.string() +
                      " holds no summary.json; give a series, or a folder that 'vrk run' made");
    auto [input, tilts] = readRunSummary(*text, folder);
    const PeakList peaks = readPeaks(folder / "peaks.txt");
    const bool ascending = std::is_sorted(tilts.begin(), tilts.end());
    if (!peaks.head || tilts.size() < 2 || !ascending)
        throw Failure(folder.string() + " does not hold the files of one run; run the series again");
    const auto& size = peaks.head->size;
    const SamplingGeometry geometry(static_cast<unsigned>(size[0]), tilts, static_cast<unsigned>(size[2]));
    const ReflexVectorPtr places(
        ReflectionPositions::fromCenters(peaks.reflections.get(), 0, geometry, &input.tilts));
    for (Reflex* place : *places)
        input.positions.emplace_back(place->getCenterInX(), place->getCenterInY(), place->getCenterInZ());
    input.centre = Eigen::Vector3d(peaks.origin.data());
    input.lattice.origin = input.centre;
    input.width = size[0];
    return input;
}

}  // namespace vrk
