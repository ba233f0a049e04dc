/// \file
/// Input files of XDS (XDS.INP).
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numbers>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

/// Values behind every KEYWORD= of the file; several may stand in a line, ! begins a comment.
using Keywords = std::multimap<std::string, std::vector<std::string>>;

Keywords keywordsOf(const ListText& text) {
    Keywords keywords;
    for (const std::string& line : text.lines()) {
        std::string content = line.substr(0, line.find('!'));
        for (std::size_t equals = 0; (equals = content.find('=', equals)) != std::string::npos; equals += 2)
            content.replace(equals, 1, "= ");
        std::istringstream words(content);
        std::vector<std::string>* values = nullptr;
        for (std::string word; words >> word;) {
            if (word.size() > 1 && word.back() == '=')
                values =
                    &keywords.emplace(word.substr(0, word.size() - 1), std::vector<std::string>())->second;
            else if (values)
                values->push_back(word);
        }
    }
    return keywords;
}

std::vector<double> numbersIn(const std::vector<std::string>& words) {
    std::vector<double> numbers;
    double value = 0;
    for (const std::string& word : words)
        if (parseNumber(word, value)) numbers.push_back(value);
    return numbers;
}

/// The numbers of a keyword; empty when it is missing or has fewer than \p count.
std::vector<double> numbersOf(const Keywords& keywords, const std::string& keyword, std::size_t count) {
    const auto found = keywords.find(keyword);
    if (found == keywords.end()) return {};
    std::vector<double> numbers = numbersIn(found->second);
    return numbers.size() < count ? std::vector<double>() : numbers;
}

double numberOf(const Keywords& keywords, const std::string& keyword, double otherwise) {
    const std::vector<double> numbers = numbersOf(keywords, keyword, 1);
    return numbers.empty() ? otherwise : numbers[0];
}

bool recogniseXdsInput(const ListText& text) {
    const auto& lines = text.lines();
    return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.substr(0, line.find('!')).find("OSCILLATION_RANGE=") != std::string::npos;
    });
}

/// The axis among the pixels. XDS gives it and the detector's axes in one right-handed laboratory frame.
std::optional<double> axisOf(const Keywords& keywords) {
    const std::vector<double> axis = numbersOf(keywords, "ROTATION_AXIS", 3);
    if (axis.empty()) return std::nullopt;
    const auto along = [&](const char* keyword, const std::array<double, 3>& usual) {
        const std::vector<double> stated = numbersOf(keywords, keyword, 3);
        double product = 0;
        for (std::size_t i = 0; i < 3; ++i)
            product += axis[i] * (stated.empty() ? usual[i] : stated[i]);
        return product;
    };
    const double x = along("DIRECTION_OF_DETECTOR_X-AXIS", {1, 0, 0});
    const double y = along("DIRECTION_OF_DETECTOR_Y-AXIS", {0, 1, 0});
    if (x == 0 && y == 0) return std::nullopt;
    return std::atan2(-x, y) * 180 / std::numbers::pi;
}

/// The name of a frame: the template with the number in place of its question marks. HDF5 frames lie behind
/// one master.
std::string nameOf(std::string pattern, long long number) {
    const std::size_t first = pattern.find('?');
    if (first == std::string::npos) return pattern;
    const std::size_t width = std::min(pattern.find_first_not_of('?', first), pattern.size()) - first;
    if (pattern.ends_with(".h5")) return pattern.replace(first, width, "master");
    const std::string digits = std::to_string(number);
    return pattern.replace(first, width,
                           std::string(width > digits.size() ? width - digits.size() : 0, '0') + digits);
}

void listFrames(const ListText& text, const Keywords& keywords, FrameList& list) {
    constexpr double mostFrames = 100000;
    constexpr double largestNumber = 1e9;
    constexpr std::size_t longestName = 512;  // the names of all frames are kept
    const auto pattern = keywords.find("NAME_TEMPLATE_OF_DATA_FRAMES");
    const std::vector<double> range = numbersOf(keywords, "DATA_RANGE", 2);
    if (pattern == keywords.end() || pattern->second.empty() || range.empty() || range[0] < 1 ||
        range[1] < range[0] || range[1] - range[0] > mostFrames || range[1] > largestNumber ||
        pattern->second[0].size() > longestName)
        return;
    std::vector<std::pair<double, double>> exclusions;
    const auto [firstOne, lastOne] = keywords.equal_range("EXCLUDE_DATA_RANGE");
    for (auto keyword = firstOne; keyword != lastOne; ++keyword)
        if (const std::vector<double> limits = numbersIn(keyword->second); limits.size() >= 2)
            exclusions.emplace_back(limits[0], limits[1]);
    const auto excluded = [&](double number) {
        return std::any_of(exclusions.begin(), exclusions.end(), [&](const auto& limits) {
            return number >= limits.first && number <= limits.second;
        });
    };
    for (auto number = static_cast<long long>(range[0]); number <= static_cast<long long>(range[1]);
         ++number) {
        if (excluded(static_cast<double>(number))) continue;
        const double steps = static_cast<double>(number - list.sweep->first);
        const int frame = pattern->second[0].ends_with(".h5") ? static_cast<int>(number) - 1 : -1;
        list.frames.push_back({text.file(nameOf(pattern->second[0], number)),
                               list.sweep->start + steps * list.sweep->step, frame});
    }
}

/// Frame n begins at STARTING_ANGLE + OSCILLATION_RANGE (n - STARTING_FRAME).
FrameList readXdsInput(const ListText& text) {
    const Keywords keywords = keywordsOf(text);
    const double step = numberOf(keywords, "OSCILLATION_RANGE", 0);
    if (step == 0 || std::abs(step) > 90)
        throw Failure(text.path().string() + ": OSCILLATION_RANGE is no rotation per frame");
    const std::vector<double> range = numbersOf(keywords, "DATA_RANGE", 2);
    FrameList list;
    list.rotation = std::abs(step);
    list.sweep = {numberOf(keywords, "STARTING_ANGLE", 0) + step / 2, step, 1, {}};
    const double first = numberOf(keywords, "STARTING_FRAME", range.empty() ? 1 : range[0]);
    if (std::abs(first) < 1e9) list.sweep->first = static_cast<long long>(first);
    list.axis = axisOf(keywords);
    const double wavelength = numberOf(keywords, "X-RAY_WAVELENGTH", 0);
    const double distance = std::abs(numberOf(keywords, "DETECTOR_DISTANCE", 0));
    const double pixel = numberOf(keywords, "QX", 0);
    if (wavelength > 0) list.kilovolts = EwaldCurvature::kiloVolts(wavelength);
    if (wavelength > 0 && distance > 0 && pixel > 0) list.pixelSize = pixel / (distance * wavelength) * 1e10;
    listFrames(text, keywords, list);
    return list;
}

const ListFormat::Registration kXds({"XDS.INP", recogniseXdsInput, readXdsInput});

}  // namespace
}  // namespace vrk
