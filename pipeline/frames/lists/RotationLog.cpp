/// \file
/// Logs that a collection program leaves beside the frames of a continuous rotation (cRED_log.txt).
#include <algorithm>
#include <cmath>
#include <numbers>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

/// The number behind "NAME:" in the first line that begins so.
std::optional<double> valueOf(const ListText& text, const std::string& name) {
    for (const std::string& line : text.lines()) {
        if (!line.starts_with(name + ":")) continue;
        std::string word;
        std::istringstream(line.substr(name.size() + 1)) >> word;
        double value = 0;
        if (parseNumber(word, value)) return value;
    }
    return std::nullopt;
}

bool recogniseRotationLog(const ListText& text) {
    return valueOf(text, "Starting angle") && valueOf(text, "Ending angle");
}

/// Lines "Starting angle", "Ending angle", "Oscillation angle" (without sign), "Number of frames",
/// "Wavelength" (Angstrom), "Pixelsize" (1/Angstrom, whatever unit it names) and "Rotation axis" (radians,
/// counted from x counter-clockwise on the screen: the axis lies along (cos, -sin) with y down).
FrameList readRotationLog(const ListText& text) {
    const double start = *valueOf(text, "Starting angle");
    const double end = *valueOf(text, "Ending angle");
    const std::optional<double> frames = valueOf(text, "Number of frames");
    FrameList list;
    double step = valueOf(text, "Oscillation angle").value_or(0);
    if (step == 0 && frames && *frames > 0) step = (end - start) / *frames;
    step = std::copysign(step, end - start);
    if (step == 0 || std::abs(step) > 90)
        throw Failure(text.path().string() + ": it states no oscillation angle, or none that can be");
    list.rotation = std::abs(step);
    list.sweep = {start + step / 2, step, 1, {}};
    if (frames && *frames > 0 && *frames < 1e9) list.sweep->count = static_cast<long long>(*frames);
    if (const auto wavelength = valueOf(text, "Wavelength"); wavelength && *wavelength > 0)
        list.kilovolts = EwaldCurvature::kiloVolts(*wavelength);
    if (const auto pixel = valueOf(text, "Pixelsize"); pixel && *pixel > 0) list.pixelSize = *pixel * 1e10;
    if (const auto axis = valueOf(text, "Rotation axis"))
        list.axis = std::remainder(-90 - *axis * 180 / std::numbers::pi, 360);
    return list;
}

const ListFormat::Registration kLog({"rotation log", recogniseRotationLog, readRotationLog});

}  // namespace
}  // namespace vrk
