#include "pipeline/formats/PeakList.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pipeline/base/Failure.h"
#include "pipeline/frames/FileContent.h"
#include "reflections/PeakFileImportExport.h"
#include "reflections/Reflex.h"

namespace vrk {
namespace {

constexpr const char* kPeakFileMark = "#VRKPEAKSVERSION";
/// No line of a list is longer; a longer one is no list of numbers.
constexpr std::size_t kLongestLine = 4096;

/// Reads at most kLongestLine characters of a line. \returns false at the end of the file.
bool readLine(std::istream& file, std::string& line) {
    line.clear();
    for (int c = file.get(); c != std::istream::traits_type::eof(); c = file.get()) {
        if (c == '\n') return true;
        if (line.size() == kLongestLine) return true;
        line += static_cast<char>(c);
    }
    return !line.empty();
}

/// The lines before the positions, empty where the file has no more; the last of them names the columns.
std::vector<std::string> headLines(const std::filesystem::path& path) {
    constexpr std::size_t kHeadLines = 8;
    std::ifstream file(path);
    std::string line;
    std::vector<std::string> lines;
    while (lines.size() < kHeadLines && readLine(file, line))
        lines.push_back(line);
    if (file.bad()) throw Failure("cannot read " + path.string() + " to its end");
    lines.resize(kHeadLines);
    return lines;
}

PeakFileHead readHead(const std::vector<std::string>& lines, const std::filesystem::path& path) {
    PeakFileHead head;
    std::array<double, 3> size{};
    std::istringstream(lines[2]) >> size[0] >> size[1] >> size[2] >> head.firstTilt >> head.lastTilt;
    for (std::size_t i = 0; i < 3; ++i) {
        if (!(size[i] >= 1.0 && size[i] <= 1e6))
            throw Failure(path.string() + ", line 3: the size of the volume is missing or impossible");
        head.size[i] = static_cast<int>(size[i]);
    }
    std::istringstream(lines[4]) >> head.pixelSize;
    if (!(std::isfinite(head.pixelSize) && head.pixelSize > 0.0)) head.pixelSize = 0.0;
    return head;
}

/// The numbers at the start of a line, at most four.
std::vector<double> numbersAtStart(const std::string& line) {
    std::vector<double> numbers;
    const char* at = line.data();
    const char* const end = at + line.size();
    while (numbers.size() < 4) {
        at = std::find_if(
            at, end, [](char c) { return std::string_view(" \t,;\r").find(c) == std::string_view::npos; });
        if (at != end && *at == '+') ++at;
        double value = 0.0;
        const auto [next, error] = std::from_chars(at, end, value);
        if (error != std::errc() || !std::isfinite(value)) break;
        numbers.push_back(value);
        at = next;
    }
    return numbers;
}

/// \returns whether every line has an intensity
bool readPlainList(const std::filesystem::path& path, ReflexVector& list) {
    std::ifstream file(path);
    std::string line;
    bool hasIntensities = true;
    for (std::size_t number = 1; readLine(file, line); ++number) {
        const std::size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#') continue;
        const std::vector<double> values = numbersAtStart(line);
        if (values.size() < 3)
            throw Failure(path.string() + ", line " + std::to_string(number) +
                          ": no three numbers x y z; a list of positions or a peak file is expected");
        ReflexPtr reflex(new Reflex(values[0], values[1], values[2]));
        if (values.size() > 3)
            reflex->setIntensity(std::max(values[3], 0.0));
        else
            hasIntensities = false;
        list.push_back(reflex.release());
    }
    if (file.bad()) throw Failure("cannot read " + path.string() + " to its end");
    return hasIntensities;
}

}  // namespace

PeakList readPeaks(const std::filesystem::path& path) {
    refuseUnlessPeaks(path);
    const std::vector<std::string> lines = headLines(path);
    PeakList peaks;
    peaks.reflections.reset(new ReflexVector);
    if (lines.front().starts_with(kPeakFileMark)) {
        peaks.head = readHead(lines, path);
        for (std::size_t i = 0; i < 3; ++i)
            peaks.origin[i] = 0.5 * (peaks.head->size[i] - 1.0);
        if (!PeakFileImportExport::loadPeakFile(path.string(), peaks.reflections.get()))
            throw Failure(path.string() + " is no complete peak file; run 'vrk peaks' again");
        peaks.hasIntensities = PeakFileImportExport::loadIntensities(path.string(), peaks.reflections.get());
        const bool announced = lines.back().find("intensity") != std::string::npos;
        if (announced && !peaks.hasIntensities)
            throw Failure(path.string() + " lacks intensities that it announces; run 'vrk peaks' again");
    } else {
        peaks.hasIntensities = readPlainList(path, *peaks.reflections);
    }
    if (peaks.reflections->empty())
        throw Failure(path.string() + " holds no reflections", FailureKind::NothingFound);
    return peaks;
}

}  // namespace vrk
