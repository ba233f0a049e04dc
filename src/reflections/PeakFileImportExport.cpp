#include "reflections/PeakFileImportExport.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <locale>
#include <string_view>
#include <vector>

#include "foundation/Version.h"
#include "foundation/detail/Log.h"
#include "reflections/ReflexVector.h"

namespace {

using VRK::detail::log;

constexpr std::string_view kVersionMark = "#VRKPEAKSVERSION 2";
constexpr std::string_view kColumns = "\n#x y z";
constexpr std::string_view kColumnsWithIntensity = "\n#x y z intensity";

/// Reads lines of at most 255 characters. Once a line was longer or missing, all that follow are empty.
class LineReader {
public:
    explicit LineReader(std::istream& stream) : m_stream(stream) {}

    std::string_view next() {
        m_stream.getline(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
        return m_buffer.data();
    }
    bool startsWithHash() { return next().starts_with('#'); }
    /// False after a line that was too long, missing, or without a line feed.
    bool complete() const { return m_stream.good(); }

private:
    std::istream& m_stream;
    std::array<char, 256> m_buffer{};
};

/// Reads numbers from the start of a text, one after the other. Where there is none it stays and gives 0.
class NumberReader {
public:
    explicit NumberReader(std::string_view text) : m_rest(text) {}

    double real() {
        const std::string_view before = m_rest;
        const double value = parse<double>(0.0);
        if (std::isfinite(value)) return value;
        m_rest = before;
        return 0.0;
    }
    /// Numbers beyond the range of the type end at its bounds.
    std::int64_t integer() {
        const bool negative =
            m_rest.substr(std::min(m_rest.find_first_not_of(kBlanks), m_rest.size())).starts_with('-');
        return parse<std::int64_t>(negative ? std::numeric_limits<std::int64_t>::min()
                                            : std::numeric_limits<std::int64_t>::max());
    }

private:
    static constexpr std::string_view kBlanks = " \t\r\v\f";

    template <typename Number>
    Number parse(Number outOfRange) {
        std::string_view text = m_rest.substr(std::min(m_rest.find_first_not_of(kBlanks), m_rest.size()));
        if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
        Number value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc::invalid_argument) return 0;
        m_rest = text.substr(static_cast<std::size_t>(end - text.data()));
        return error == std::errc() ? value : outOfRange;
    }

    std::string_view m_rest;
};

/// Half of a size that the file gives as a real number, both steps towards zero.
double halfOf(double size) {
    constexpr double limit = std::numeric_limits<int>::max();
    const int half = static_cast<int>(std::clamp(size, -limit, limit)) / 2;
    return half;
}

/// Reads the eight lines before the peaks: the halves of the volume's size, and the number of peaks.
bool readHeadLines(LineReader& lines, std::array<double, 3>& halves, std::int64_t& count) {
    if (!lines.startsWithHash()) return false;
    lines.next();
    NumberReader sizes(lines.next());
    for (double& half : halves)
        half = halfOf(sizes.real());
    lines.next();
    lines.next();
    if (!lines.startsWithHash()) return false;
    count = NumberReader(lines.next()).integer();
    return lines.startsWithHash();
}

/// What stands in the first five lines.
struct Head {
    int nx, ny, nz;
    double tiltPosition1, tiltPositionN;
    double pixelSize, cameraLength, diffLens;
};

void writeHeadLines(std::ostream& file, const Head& head) {
    file << kVersionMark << " (written by VRKCore library " << VRK::kVersion << ")\n"
         << "#nx ny nz tilt_position_1 tilt_position_N\n"
         << head.nx << ' ' << head.ny << ' ' << head.nz << ' ' << head.tiltPosition1 << ' '
         << head.tiltPositionN << '\n'
         << "#pix_size(m) CL(camera length, mm) DiffLens(%)\n"
         << head.pixelSize << ' ' << head.cameraLength << ' ' << head.diffLens << '\n';
}

bool write(const std::string& path, const ReflexVector* reflexes, int centerType, const Head& head,
           bool onlyIndicated, bool withIntensities) {
    log("peak file to save: " + path + "\n", VRK::Normal);
    std::ofstream file(path, std::ios::trunc);
    if (!file) {
        log("ERROR: Error while opening file to write " + path + "\n", VRK::Error);
        return false;
    }
    if (!reflexes) {
        log("Error while writing the file. Reflections = NULL", VRK::Error);
        return false;
    }
    file.imbue(std::locale::classic());
    writeHeadLines(file, head);

    const auto selected = [&](const Reflex* reflex) {
        return reflex && (!onlyIndicated || reflex->isIndicated());
    };
    const auto count = std::count_if(reflexes->begin(), reflexes->end(), selected);
    if (onlyIndicated && count == 0) log("There are no indicated reflections to save.", VRK::Warning);
    file << "#N_peaks\n" << count << (withIntensities ? kColumnsWithIntensity : kColumns) << '\n';
    const int halves[3] = {head.nx / 2, head.ny / 2, head.nz / 2};
    for (Reflex* reflex : *reflexes) {
        if (!selected(reflex)) continue;
        for (int axis = 0; axis < 3; ++axis)
            file << (axis > 0 ? " " : "") << reflex->getCenter(axis, centerType) - halves[axis];
        if (withIntensities) file << ' ' << reflex->getIntensity();
        file << '\n';
    }
    file.close();
    if (file) return true;
    log("ERROR: Error while writing the file " + path + "; is the disk full?\n", VRK::Error);
    return false;
}

}  // namespace

bool PeakFileImportExport::writePeakFile_version_2(const std::string& path, const ReflexVector* reflexes,
                                                   int centerType, int nx, int ny, int nz,
                                                   double tiltPosition1, double tiltPositionN,
                                                   double pixelSize, double cameraLength, double diffLens,
                                                   bool onlyIndicated) {
    return write(path, reflexes, centerType,
                 {nx, ny, nz, tiltPosition1, tiltPositionN, pixelSize, cameraLength, diffLens}, onlyIndicated,
                 false);
}

bool PeakFileImportExport::writePeakFileWithIntensities(const std::string& path, const ReflexVector* reflexes,
                                                        int centerType, int nx, int ny, int nz,
                                                        double tiltPosition1, double tiltPositionN,
                                                        double pixelSize, double cameraLength,
                                                        double diffLens, bool onlyIndicated) {
    return write(path, reflexes, centerType,
                 {nx, ny, nz, tiltPosition1, tiltPositionN, pixelSize, cameraLength, diffLens}, onlyIndicated,
                 true);
}

bool PeakFileImportExport::loadPeakFile(const std::string& path, ReflexVector* reflexes) {
    std::array<char, kVersionMark.size() + 1> mark{};
    std::ifstream file(path);
    if (!file) log("Error while opening file", VRK::Error);
    file.getline(mark.data(), static_cast<std::streamsize>(mark.size()));
    file.close();
    log(mark.data(), VRK::Normal);
    if (mark.data() != kVersionMark) {
        log("Unkown peak file format", VRK::Error);
        return false;
    }
    log("peak file has format version 2", VRK::Debug);
    return loadPeakFile_version_2(path, reflexes);
}

bool PeakFileImportExport::loadPeakFile_version_2(const std::string& path, ReflexVector* reflexes) {
    const std::string announcement = "peak file to load: " + path + "\n";
    log(announcement, VRK::Normal);
    std::ifstream file(path);
    if (!file) {
        log("Error while opening file", VRK::Error);
        return false;
    }
    LineReader lines(file);
    std::array<double, 3> halves{};
    std::int64_t count = 0;
    if (!readHeadLines(lines, halves, count)) return false;
    if (!reflexes) {
        log("Error while reading in the file. Reflections = NULL", VRK::Error);
        return false;
    }
    reflexes->clear();
    for (std::int64_t peak = 0; peak < count; ++peak) {
        NumberReader numbers(lines.next());
        if (!lines.complete()) {
            log("Error while reading in the file", VRK::Error);
            return false;
        }
        const double x = numbers.real() + halves[0];
        const double y = numbers.real() + halves[1];
        const double z = numbers.real() + halves[2];
        reflexes->append(ReflexPtr(new Reflex(x, y, z)));
    }
    log(announcement + std::to_string(reflexes->size()) + " reflections loaded.\n", VRK::Normal);
    return true;
}

bool PeakFileImportExport::loadIntensities(const std::string& path, ReflexVector* reflexes) {
    std::ifstream file(path);
    if (!file || !reflexes) return false;
    LineReader lines(file);
    for (int skipped = 0; skipped < 7; ++skipped)
        lines.next();
    if (!lines.next().starts_with(kColumnsWithIntensity.substr(1))) return false;
    std::vector<double> intensities;
    for (std::size_t i = 0; i < reflexes->size(); ++i) {
        NumberReader numbers(lines.next());
        if (!lines.complete()) return false;
        for (int skipped = 0; skipped < 3; ++skipped)
            numbers.real();
        intensities.push_back(std::max(numbers.real(), 0.0));
    }
    for (std::size_t i = 0; i < intensities.size(); ++i)
        if (Reflex* reflex = (*reflexes)[i]) reflex->setIntensity(intensities[i]);
    return true;
}
