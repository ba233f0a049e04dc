#include "pipeline/frames/TiltList.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"

namespace vrk {
namespace {

/// The lines of a text file. Lists of this kind have some kilobytes; longer ones are something else.
std::vector<std::string> linesOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path.string() + ": there is no such file");
    std::error_code error;
    if (std::filesystem::file_size(path, error) > 50'000'000 || error)
        throw Failure("cannot read " + path.string() + ": it is not a text file of reasonable size");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

[[noreturn]] void refuse(const std::filesystem::path& path, std::size_t line, const std::string& reason) {
    throw Failure(path.string() + ", line " + std::to_string(line + 1) + ": " + reason);
}

std::string shortened(const std::string& text) {
    return text.size() <= 60 ? text : text.substr(0, 60) + "...";
}

double tiltOf(const std::filesystem::path& path, std::size_t line, const std::string& text) {
    double tilt = 0;
    if (!parseNumber(text, tilt) || std::abs(tilt) > 360)
        refuse(path, line, "\"" + shortened(text) + "\" is not a tilt in degrees");
    return tilt;
}

TiltList readPlainList(const std::filesystem::path& path) {
    TiltList list;
    const std::vector<std::string> lines = linesOf(path);
    for (std::size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find_first_not_of(" \t") != std::string::npos)
            list.tilts.push_back(tiltOf(path, i, lines[i]));
    return list;
}

/// "Key = value" of a line, trimmed; false for other lines.
bool keyAndValue(const std::string& line, std::string& key, std::string& value) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return false;
    std::istringstream(line.substr(0, equals)) >> key;
    std::istringstream(line.substr(equals + 1)) >> value;
    return true;
}

TiltList readMdoc(const std::filesystem::path& path) {
    TiltList list;
    std::map<long, double> tilts;
    long section = -1;
    const std::vector<std::string> lines = linesOf(path);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string key;
        std::string value;
        if (lines[i].starts_with("[")) {
            if (std::sscanf(lines[i].c_str(), "[ZValue = %ld", &section) != 1) section = -1;
        } else if (keyAndValue(lines[i], key, value)) {
            if (key == "TiltAngle" && section >= 0) tilts[section] = tiltOf(path, i, value);
            double voltage = 0;
            if (key == "Voltage" && parseNumber(value, voltage) && voltage > 0) list.kilovolts = voltage;
        }
    }
    for (const auto& [number, tilt] : tilts)
        list.tilts.push_back(tilt);
    return list;
}

}  // namespace

TiltList readTilts(const std::string& text, std::size_t count) {
    std::error_code error;
    if (std::filesystem::is_regular_file(text, error)) {
        const std::filesystem::path path = text;
        TiltList list = path.extension() == ".mdoc" ? readMdoc(path) : readPlainList(path);
        if (list.tilts.size() != count)
            throw Failure(text + " has " + std::to_string(list.tilts.size()) + " tilts, but there are " +
                          std::to_string(count) + " frames");
        return list;
    }
    if (text.find(':') == std::string::npos)
        throw Failure("--tilts " + text + " is neither a file nor START:STEP, for instance -30:0.5");
    const std::vector<double> range = numbersOf(text, ':', "--tilts");
    if (range.size() != 2 || range[1] == 0)
        throw Failure("--tilts takes START:STEP in degrees, for instance -30:0.5, not " + text,
                      FailureKind::Usage);
    TiltList list;
    for (std::size_t i = 0; i < count; ++i)
        list.tilts.push_back(range[0] + static_cast<double>(i) * range[1]);
    return list;
}

FrameList readFrameList(const std::filesystem::path& path) {
    FrameList list;
    bool inFiles = false;
    const std::vector<std::string> lines = linesOf(path);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::istringstream words(lines[i]);
        std::string keyword;
        std::string first;
        std::string second;
        words >> keyword >> first >> second;
        if (keyword == "FILELIST") inFiles = true;
        if (keyword == "ENDFILELIST") break;
        if (inFiles && keyword == "FILE") {
            std::replace(first.begin(), first.end(), '\\', '/');
            list.frames.push_back({path.parent_path() / first, tiltOf(path, i, second)});
            continue;
        }
        double value = 0;
        const bool isNumber = parseNumber(first, value);
        if (keyword == "WAVELENGTH" && isNumber && value > 0) list.wavelength = value;
        if (keyword == "CCDPIXELSIZE" && isNumber && value > 0) list.pixelSize = value * 1e10;
        if (keyword == "GONIOTILTSTEP" && isNumber && value != 0) list.rotation = std::abs(value);
        if (keyword == "ROTATIONAXIS" && isNumber) list.axis = std::remainder(value - 90, 360);
    }
    if (list.frames.empty())
        throw Failure("cannot import " + path.string() +
                      ": it lists no frames (lines FILE NAME TILT after FILELIST)");
    return list;
}

}  // namespace vrk
