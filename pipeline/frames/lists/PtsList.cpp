/// \file
/// Lists of frames with the ending .pts.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool recognisePtsList(const ListText& text) {
    const std::string extension = lowered(text.path().extension().string());
    return extension == ".pts" || extension == ".pts2";
}

/// Splits a line into words; a name with blanks stands between quotes.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words;
    std::istringstream stream(line);
    for (std::string word; stream >> std::ws && !stream.eof();) {
        if (stream.peek() == '"') {
            stream.get();
            std::getline(stream, word, '"');
        } else {
            stream >> word;
        }
        words.push_back(word);
    }
    return words;
}

/// Lines KEYWORD VALUE, and between imagelist and endimagelist lines NAME ALPHA BETA whose names are relative
/// to the list. aperpixel is in 1/Angstrom. phi is half the rotation of a frame or, with the
/// geometry "precession", half the angle of the cone. omega counts from x
/// counter-clockwise on the screen, so the axis lies along (cos omega, -sin omega) with y down.
FrameList readPtsList(const ListText& text) {
    FrameList list;
    bool inFiles = false;
    std::string geometry;
    std::optional<double> phi;
    for (std::size_t i = 0; i < text.lines().size(); ++i) {
        const std::vector<std::string> words = wordsOf(text.lines()[i]);
        if (words.empty() || words[0].starts_with("#")) continue;
        const std::string keyword = lowered(words[0]);
        if (keyword == "endimagelist") break;
        if (inFiles) {
            list.frames.push_back({text.file(words[0]), text.tilt(i, words.size() > 1 ? words[1] : "")});
            continue;
        }
        inFiles = keyword == "imagelist";
        if (words.size() < 2) continue;
        if (keyword == "geometry") geometry = lowered(words[1]);
        double value = 0;
        if (!parseNumber(words[1], value)) continue;
        if (keyword == "lambda" && value > 0) list.kilovolts = EwaldCurvature::kiloVolts(value);
        if (keyword == "aperpixel" && value > 0) list.pixelSize = value * 1e10;
        if (keyword == "omega") list.axis = std::remainder(-90 - value, 360);
        if (keyword == "phi" && value > 0) phi = value;
    }
    if (geometry.starts_with("continuous") && phi) list.rotation = 2 * *phi;
    if (geometry.starts_with("precession") || geometry.starts_with("static")) list.rotation = 0;
    if (geometry.starts_with("precession")) list.precession = phi;
    if (list.frames.empty())
        throw Failure("cannot import " + text.path().string() +
                      ": it lists no frames (lines NAME TILT after imagelist)");
    return list;
}

const ListFormat::Registration kPts({".pts", recognisePtsList, readPtsList});

}  // namespace
}  // namespace vrk
