#include "indexing/HKLfileImportExport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "foundation/VRKLogger.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"

int HKLfileImportExport::m_fieldWidth = 8;

namespace {

/// No index of a reflection that is to be written is larger.
constexpr int kLargestIndex = 100000;

void logError(const std::string& text) {
    VRKLogger::getInstance()->log(text, VRK::Error, VRK::Information);
}

/// Digits of the value rounded to an integer by adding a half and truncating; empty when it is not finite.
std::string digitsOf(double value) {
    if (!std::isfinite(value)) return {};
    std::array<char, 400> buffer;  // the largest double has 309 digits
    const int length = std::snprintf(buffer.data(), buffer.size(), "%.0f", std::trunc(value + 0.5) + 0.0);
    return {buffer.data(), static_cast<std::size_t>(length)};
}

bool isZero(const std::string& digits) {
    return digits == "0" || digits == "-0";
}

std::string rightJustified(const std::string& text, std::size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

bool fits(const std::string& digits, std::size_t width) {
    return !digits.empty() && digits.size() <= width;
}

double largestIntensity(const ReflexVector& reflections) {
    double largest = 0.0;
    for (const Reflex* reflex : reflections)
        if (reflex && std::isfinite(reflex->getIntensity()))
            largest = std::max(largest, reflex->getIntensity());
    return largest;
}

void sortByIndices(ReflexVector& reflections) {
    // An empty place counts as no reflection; the sorting reads every element.
    const auto empty = std::stable_partition(reflections.begin(), reflections.end(),
                                             [](const Reflex* reflex) { return reflex != nullptr; });
    const auto places = reflections.end() - empty;
    reflections.erase(empty, reflections.end());
    reflections.sortReflectionsByHKL();
    reflections.insert(reflections.end(), static_cast<std::size_t>(places), nullptr);
}

}  // namespace

void HKLfileImportExport::saveHKLFile(ReflexVector* reflections, std::string path) {
    exportHKLFile(reflections, path);
}

bool HKLfileImportExport::exportHKLFile(ReflexVector* reflections, const std::string& path) {
    if (!reflections) {
        logError("Cannot write the HKL file " + path + ": there is no list of reflections.");
        return false;
    }
    std::ofstream file(path, std::ios::trunc);
    if (!file) {
        logError("Cannot open the HKL file " + path + " for writing: " + std::strerror(errno) +
                 ". Check that the folder exists and may be written to.");
        return false;
    }
    sortByIndices(*reflections);

    const double largest = largestIntensity(*reflections);
    std::string (*field)(double) = getF8_2;
    std::string format;
    if (largest >= 99999999.5) {
        m_fieldWidth = static_cast<int>(digitsOf(largest).size());
        field = getFi_0;
        format = "(3I4 2F" + std::to_string(m_fieldWidth) + ".0)";
    } else if (largest >= 1000000.0) {
        field = getF8_0;
        format = "(3I4 2F8.0)";
    } else if (largest >= 100000.0) {
        field = getF8_1;
        format = "(3I4 2F8.1)";
    }
    if (!format.empty())
        VRKLogger::getInstance()->log("HKL Format changed to " + format, VRK::Warning, VRK::Information);

    for (const Reflex* reflex : *reflections) {
        if (!reflex) continue;
        int h = 0, k = 0, l = 0;
        reflex->getHKL(h, k, l);
        if (h > kLargestIndex || k > kLargestIndex || l > kLargestIndex) continue;
        const double intensity = reflex->getIntensity();
        file << getI4(h) << getI4(k) << getI4(l) << field(intensity) << field(std::sqrt(intensity)) << '\n';
    }
    file.close();
    if (file) return true;
    logError("The HKL file " + path + " could not be written completely: " + std::strerror(errno) +
             ". Check the space left on the disk.");
    return false;
}

std::string HKLfileImportExport::getI4(int value) {
    if (value < -999 || value > 9999) return " err";
    return rightJustified(std::to_string(value), 4);
}

std::string HKLfileImportExport::getF8_2(double value) {
    const std::string digits = digitsOf(value * 100.0);
    if (isZero(digits)) return "    0.00";
    if (!fits(digits, 7)) return "     err";
    const std::string text = rightJustified(digits, 7);
    return text.substr(0, 5) + "." + text.substr(5, 2);
}

std::string HKLfileImportExport::getF8_1(double value) {
    const std::string digits = digitsOf(value * 10.0);
    if (isZero(digits)) return "    0.00";
    if (!fits(digits, 7)) return "     err";
    // The tenths are not resolved at these intensities: the place behind the point repeats the last whole
    // digit.
    const std::string text = rightJustified(digits, 7);
    return text.substr(0, 6) + "." + text.substr(5, 1);
}

std::string HKLfileImportExport::getF8_0(double value) {
    const std::string digits = digitsOf(value);
    if (isZero(digits)) return "    0.00";
    return fits(digits, 8) ? rightJustified(digits, 8) : "     err";
}

std::string HKLfileImportExport::getFi_0(double value) {
    const std::string digits = digitsOf(value);
    if (isZero(digits)) return "0.00";
    const auto width = static_cast<std::size_t>(m_fieldWidth);
    return fits(digits, width) ? rightJustified(digits, width) : " err";
}
