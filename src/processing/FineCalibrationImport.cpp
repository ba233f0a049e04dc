#include "processing/FineCalibrationImport.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <vector>

#include "foundation/detail/Log.h"

namespace {

constexpr double kTolerance = 1e-3;
constexpr std::streamoff kLargestFile = 1 << 20;

double* refuse(const std::string& text) {
    VRK::detail::log(text, VRK::Error);
    return nullptr;
}

struct Calibration {
    double stated = 0;
    double calibrated = 0;
};

bool agree(double a, double b) {
    return std::abs(a - b) <= kTolerance * std::abs(b);
}

/// A line without its comment, split at blanks.
std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream text(line.substr(0, line.find('#')));
    std::vector<std::string> words;
    for (std::string word; text >> word;)
        words.push_back(word);
    return words;
}

std::optional<double> positiveNumber(const std::string& word) {
    std::istringstream text(word);
    text.imbue(std::locale::classic());
    double value = 0;
    if (!(text >> value) || text.peek() != std::istringstream::traits_type::eof()) return std::nullopt;
    if (!std::isfinite(value) || value <= 0) return std::nullopt;
    return value;
}

/// What is wrong with the words of a line, nothing when they are a calibration.
std::string readInto(Calibration& calibration, const std::vector<std::string>& words) {
    if (words.size() != 2)
        return "expected two numbers, the stated and the calibrated pixel size in 1/m per pixel";
    for (std::size_t i = 0; i < 2; ++i) {
        const std::optional<double> value = positiveNumber(words[i]);
        if (!value) return "'" + words[i] + "' is not a positive number";
        (i == 0 ? calibration.stated : calibration.calibrated) = *value;
    }
    const double ratio = calibration.calibrated / calibration.stated;
    if (ratio < 0.5 || ratio > 2)
        return "the calibrated pixel size differs from the stated one by more than a factor of 2; are both "
               "in 1/m "
               "per pixel?";
    return "";
}

}  // namespace

double* FineCalibrationImport::initFineCalibration(std::string path, int* count) {
    *count = 0;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return refuse("Error while opening file. Fine calibration file does not exist.");
    const std::streamoff length = file.tellg();
    if (length < 0 || length > kLargestFile)
        return refuse(path + " cannot be a fine calibration file: it is a folder or larger than 1 MiB");
    file.seekg(0);

    std::vector<Calibration> lines;
    std::string text;
    for (int number = 1; std::getline(file, text); ++number) {
        const std::vector<std::string> words = wordsOf(text);
        if (words.empty()) continue;
        Calibration line;
        std::string problem = readInto(line, words);
        const auto same = [&](const Calibration& other) { return agree(line.stated, other.stated); };
        if (problem.empty() && std::any_of(lines.begin(), lines.end(), same))
            problem = "the stated pixel size " + words[0] + " occurs twice";
        if (!problem.empty()) return refuse(path + ", line " + std::to_string(number) + ": " + problem);
        lines.push_back(line);
    }
    if (lines.empty()) return refuse(path + " holds no calibration");

    auto table = std::make_unique<double[]>(2 * lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i) {
        table[2 * i] = lines[i].stated;
        table[2 * i + 1] = lines[i].calibrated;
    }
    *count = static_cast<int>(2 * lines.size());
    return table.release();
}

double FineCalibrationImport::calibratedPixelSize(const double* table, int count, double statedPixelSize) {
    for (int binning = 1; binning <= 16; binning *= 2)
        for (int i = 0; table && i + 1 < count; i += 2)
            if (agree(statedPixelSize, table[i] * binning)) return table[i + 1] * binning;
    return 0;
}
