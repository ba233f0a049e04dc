#include "pipeline/formats/InstrumentFile.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "pipeline/base/Angle.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFormat = "vrk instrument geometry";
constexpr int kVersion = 1;
constexpr std::uintmax_t kMostBytes = 1 << 20;

/// A number of the file: its key, where it is kept, and what instruments have.
struct Entry {
    const char* key;
    std::optional<CalibratedValue> InstrumentCalibration::*value;
    double least;
    double most;
    const char* unit;
};
constexpr std::array<Entry, 7> kEntries = {
    {{"ellipse", &InstrumentCalibration::ellipse, 0.0, 0.1, "as a fraction: 1.4 % are 0.014"},
     {"ellipse_azimuth_deg", &InstrumentCalibration::ellipseAzimuth, -180.0, 180.0, "in degrees"},
     {"radial", &InstrumentCalibration::radial, -0.2, 0.2, "as a fraction at half the frame's width"},
     {"tilt_scale", &InstrumentCalibration::tiltScale, 0.7, 1.3, "as true over stated tilt"},
     {"axis_angle_deg", &InstrumentCalibration::axisAngle, -360.0, 360.0, "in degrees"},
     {"axis_tilt_deg", &InstrumentCalibration::axisTilt, -30.0, 30.0, "in degrees"},
     {"pixel_scale", &InstrumentCalibration::pixelScale, 0.5, 2.0, "as true over stated pixel size"}}};

/// The frame, in words: who writes a file by hand sees what is counted from where.
Json frameJson(const InstrumentCalibration& calibration) {
    return {{"x", "right"},
            {"y", "down"},
            {"azimuth", "from x towards y"},
            {"axis", "along (-sin t, cos t)"},
            {"width_px", calibration.width},
            {"pixel_size", calibration.pixelSize}};
}

/// A file that is read, with a word of where it goes wrong.
class Reader {
public:
    explicit Reader(const std::filesystem::path& path) : m_path(path) {}

    std::string text() const {
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(m_path, error);
        if (error) throw Failure("cannot read the instrument geometry " + m_path.string());
        if (size > kMostBytes) fail("is no instrument geometry; it is too large");
        return textOfFile(m_path);
    }

    InstrumentCalibration read(std::string_view text) const {
        const auto json = parsedJson<Json>(text);
        if (json.is_discarded()) fail("is no JSON; a comma or a bracket may be missing");
        if (!json.is_object() || !json.contains("format") || json["format"] != kFormat)
            fail("is no instrument geometry; 'vrk calibrate' writes one");
        const Json version = json.value("version", Json());
        if (!version.is_number_integer() || version.get<long long>() < 1) fail("states no version");
        if (version.get<long long>() > kVersion)
            fail("is of version " + jsonText(version) + ", this program knows version " +
                 std::to_string(kVersion) + "; make it anew with 'vrk calibrate'");
        refuseUnknownKeys(json);
        InstrumentCalibration result;
        result.file = m_path;
        readFrame(json, result);
        for (const Entry& entry : kEntries)
            if (json.contains(entry.key) && !json[entry.key].is_null())
                result.*entry.value = value(json[entry.key], entry);
        if (result.ellipse.has_value() != result.ellipseAzimuth.has_value())
            fail("has one of ellipse and ellipse_azimuth_deg; both or neither belong there");
        readTexts(json, result);
        return result;
    }

private:
    [[noreturn]] void fail(const std::string& problem) const {
        throw Failure(m_path.string() + " " + problem);
    }

    void refuseUnknownKeys(const Json& json) const {
        constexpr std::array<const char*, 6> kOthers = {"format",      "version",        "frame",
                                                        "tilt_offset", "not_determined", "made_from"};
        for (const auto& [key, ignored] : json.items()) {
            const auto same = [&key = key](const char* other) { return key == other; };
            const bool known = std::any_of(kOthers.begin(), kOthers.end(), same) ||
                               std::any_of(kEntries.begin(), kEntries.end(),
                                           [&](const Entry& entry) { return same(entry.key); });
            if (!known) fail("has the key '" + key + "', which means nothing here");
        }
        if (json.contains("tilt_offset") && !json["tilt_offset"].is_null())
            fail("has a tilt_offset; an offset of all tilts turns the crystal alone and is not kept");
    }

    void readFrame(const Json& json, InstrumentCalibration& result) const {
        const Json frame = json.value("frame", Json());
        if (!frame.is_object()) fail("has no frame, which says how its values are counted");
        const Json expected = frameJson(result);
        for (const auto& [key, convention] : expected.items())
            if (convention.is_string() && (!frame.contains(key) || frame[key] != convention))
                fail("counts in another frame: frame." + key + " has to be '" +
                     convention.get<std::string>() + "'");
        const Json width = frame.value("width_px", Json());
        const Json size = frame.value("pixel_size", Json());
        const bool hasWidth =
            width.is_number_integer() && width.get<long long>() >= 2 && width.get<long long>() <= 1000000;
        if (!hasWidth) fail("has no frame.width_px, the longer side of the frames in pixels");
        if (!size.is_number() || !(size.get<double>() > 0.0) || !std::isfinite(size.get<double>()))
            fail("has no frame.pixel_size in 1/m per pixel");
        result.width = width.get<int>();
        result.pixelSize = size.get<double>();
    }

    CalibratedValue value(const Json& json, const Entry& entry) const {
        if (!json.is_object()) fail(std::string("has no value and su in ") + entry.key);
        CalibratedValue result;
        const auto take = [&](const char* key, double& target, double least, double most, bool needed) {
            if (!json.contains(key) && !needed) return;
            const Json number = json.value(key, Json());
            const std::string name = std::string(entry.key) + "." + key;
            if (!number.is_number()) fail("has no number in " + name);
            target = number.get<double>();
            if (!(target >= least && target <= most))
                fail("has " + name + " = " + jsonText(number) + ", which no instrument has; it counts " +
                     entry.unit);
        };
        take("value", result.value, entry.least, entry.most, true);
        take("su", result.sigma, 0.0, entry.most, true);
        take("correlation", result.correlation, 0.0, 1.0, false);
        for (const auto& [key, ignored] : json.items())
            if (key != "value" && key != "su" && key != "correlation")
                fail(std::string("has the key '") + key + "' in " + entry.key + ", which means nothing here");
        return result;
    }

    void readTexts(const Json& json, InstrumentCalibration& result) const {
        if (const Json reasons = json.value("not_determined", Json()); reasons.is_object())
            for (const auto& [key, reason] : reasons.items())
                if (reason.is_string()) result.notDetermined.emplace_back(key, reason.get<std::string>());
        if (const Json series = json.value("made_from", Json()); series.is_array())
            for (const Json& one : series)
                if (one.is_string()) result.madeFrom.push_back(one.get<std::string>());
    }

    std::filesystem::path m_path;
};

}  // namespace

FrameDistortion InstrumentCalibration::distortionAt(double statedPixelSize) const {
    FrameDistortion distortion;
    if (ellipse && ellipseAzimuth) {
        distortion.ellipseCosine = ellipse->value * std::cos(2.0 * ellipseAzimuth->value * kDegree);
        distortion.ellipseSine = ellipse->value * std::sin(2.0 * ellipseAzimuth->value * kDegree);
    }
    if (radial) distortion.radial = radial->value * std::pow(statedPixelSize / (0.5 * width * pixelSize), 2);
    return distortion;
}

bool InstrumentCalibration::hasCameraLengthOf(double statedPixelSize) const {
    constexpr double kSame = 1e-3;
    const double steps = std::log2(statedPixelSize / pixelSize);
    return std::abs(steps - std::round(steps)) < kSame / std::log(2.0) && std::abs(steps) < 4.5;
}

std::vector<std::pair<std::string, CalibratedValue>> valuesOf(const InstrumentCalibration& calibration) {
    std::vector<std::pair<std::string, CalibratedValue>> values;
    for (const Entry& entry : kEntries)
        if (const auto& value = calibration.*entry.value) values.emplace_back(entry.key, *value);
    return values;
}

InstrumentCalibration readInstrumentFile(const std::filesystem::path& path) {
    const Reader reader(path);
    return reader.read(reader.text());
}

InstrumentCalibration readInstrument(std::string_view text, const std::filesystem::path& path) {
    return Reader(path).read(text);
}

std::string instrumentText(const InstrumentCalibration& calibration) {
    Json json = {{"format", kFormat}, {"version", kVersion}, {"frame", frameJson(calibration)}};
    for (const Entry& entry : kEntries) {
        const std::optional<CalibratedValue>& value = calibration.*entry.value;
        json[entry.key] =
            value ? Json({{"value", value->value}, {"su", value->sigma}, {"correlation", value->correlation}})
                  : Json();
    }
    json["tilt_offset"] = nullptr;
    json["not_determined"] = Json::object();
    for (const auto& [key, reason] : calibration.notDetermined)
        json["not_determined"][key] = reason;
    json["made_from"] = calibration.madeFrom;
    return jsonText(json, 2) + '\n';
}

void writeInstrumentFile(const std::filesystem::path& path, const InstrumentCalibration& calibration) {
    OutputFile file(path);
    writeText(instrumentText(calibration), file.path());
    file.commit();
}

}  // namespace vrk
