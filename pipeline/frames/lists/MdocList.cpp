/// \file
/// Notes of a series with the ending .mdoc.
#include <cstdio>
#include <map>
#include <sstream>

#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

bool recogniseMdocList(const ListText& text) {
    return text.path().extension() == ".mdoc";
}

/// "Key = value" of a line, trimmed; false for other lines.
bool keyAndValue(const std::string& line, std::string& key, std::string& value) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return false;
    std::istringstream(line.substr(0, equals)) >> key;
    std::istringstream(line.substr(equals + 1)) >> value;
    return true;
}

/// Sections [ZValue = N] for the frames of a stack, taken in the order of N, or [Image = NAME] for frames in
/// files of their own; in each a line TiltAngle = DEGREES.
FrameList readMdocList(const ListText& text) {
    FrameList list;
    std::map<long, double> tilts;
    long section = -1;
    std::string image;
    for (std::size_t i = 0; i < text.lines().size(); ++i) {
        const std::string& line = text.lines()[i];
        std::string key;
        std::string value;
        if (line.starts_with("[")) {
            if (std::sscanf(line.c_str(), "[ZValue = %ld", &section) != 1) section = -1;
            image = line.starts_with("[Image = ") ? line.substr(9, line.find(']') - 9) : "";
        } else if (keyAndValue(line, key, value)) {
            if (key == "TiltAngle" && section >= 0) tilts[section] = text.tilt(i, value);
            if (key == "TiltAngle" && !image.empty())
                list.frames.push_back({text.file(image), text.tilt(i, value)});
            double voltage = 0;
            if (key == "Voltage" && parseNumber(value, voltage) && voltage > 0) list.kilovolts = voltage;
        }
    }
    if (list.frames.empty())
        for (const auto& [number, tilt] : tilts)
            list.frames.push_back({{}, tilt});
    return list;
}

const ListFormat::Registration kMdoc({".mdoc", recogniseMdocList, readMdocList});

}  // namespace
}  // namespace vrk
