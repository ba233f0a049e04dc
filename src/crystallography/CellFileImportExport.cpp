#include "crystallography/CellFileImportExport.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>

#include "crystallography/UnitCell.h"
#include "crystallography/detail/NumberText.h"
#include "foundation/VRKLogger.h"
#include "foundation/Version.h"

namespace {

using VRK::detail::append;

using RowVector = std::array<double, 3>;
using RowVectors = std::array<RowVector, 3>;

constexpr std::string_view kVersion2 = "#VRKCELLVERSION 2";
constexpr std::size_t kVersion1Length = 36;
constexpr double kShortestEdge = 0.001;
constexpr double kLongestEdge = 10000.0;

void log(const std::string& text, VRK::MessageType type = VRK::Normal) {
    VRKLogger::getInstance()->log(text, type, VRK::Information);
}

bool fail(const std::string& text) {
    log(text, VRK::Error);
    return false;
}

RowVectors vectorsOf(const UnitCell& cell) {
    RowVectors v;
    cell.getBase(v[0].data(), v[1].data(), v[2].data());
    return v;
}

void logVectors(const char* heading, const RowVectors& v) {
    log(heading);
    constexpr std::array<const char*, 3> labels = {"a ", "b ", "c "};
    for (std::size_t i = 0; i < 3; ++i) {
        std::string line;
        append(line, labels[i], v[i][0], "  ", v[i][1], "  ", v[i][2]);
        log(line);
    }
}

std::string line(const RowVector& v, const char* end = "\n") {
    std::string text;
    append(text, "", v[0], " ", v[1], " ", v[2]);
    return text + end;
}

RowVector edgesOf(const UnitCell& cell) {
    return {cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC()};
}

RowVector anglesOf(const UnitCell& cell) {
    return {cell.getAlpha(), cell.getBeta(), cell.getGamma()};
}

std::string textOfVersion2(const UnitCell& reciprocal) {
    const RowVectors v = vectorsOf(reciprocal);
    std::string text = std::string(kVersion2) + " (written by VRK3D " + VRK::kVersion + ")\n";
    text += "# reciprocal space cell vectors (pixels)\n";
    text += line(v[0]) + line(v[1]) + line(v[2]);
    text += "# reciprocal space cell (pixels, deg)\n";
    text += line(edgesOf(reciprocal)) + line(anglesOf(reciprocal), " \n");
    text += "# direct space cell (A, deg)\n";
    const std::unique_ptr<UnitCell> direct(reciprocal.getReciprocalCell());
    const RowVector edges = edgesOf(*direct);
    const bool isSane = std::all_of(edges.begin(), edges.end(),
                                    [](double x) { return x >= kShortestEdge && x <= kLongestEdge; });
    text += isSane ? line(edges) + line(anglesOf(*direct), " \n") : "0 0 0\n0 0 0 \n";
    return text;
}

std::string bytesOfVersion1(const RowVectors& v) {
    std::string bytes;
    for (std::size_t row = 0; row < 3; ++row)
        for (const RowVector& vector : v) {
            const auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(vector[row]));
            for (int shift = 0; shift < 32; shift += 8)
                bytes.push_back(static_cast<char>((bits >> shift) & 0xFFU));
        }
    return bytes;
}

/// Writes all or says what failed; a full disk shows when the buffer is flushed.
bool writeAll(std::ofstream& out, const std::string& file, const std::string& bytes) {
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return out ? true : fail("ERROR: Error while writing file " + file);
}

/// Lines of a text file, each cut to what a buffer of 256 characters holds. Memory stays small however long
/// the lines are; the end of a long line is passed over when the next one is asked for.
class LineReader {
public:
    explicit LineReader(std::istream& in) : m_in(in) {}

    /// The next line without its end (LF or CR LF), empty after the last.
    std::string next() {
        if (m_isInsideLine) m_in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
        m_isInsideLine = true;
        std::string text;
        while (text.size() < kMostCharacters) {
            const int c = m_in.get();
            if (c == std::istream::traits_type::eof() || c == '\n') {
                m_isInsideLine = false;
                break;
            }
            text.push_back(static_cast<char>(c));
        }
        if (!text.empty() && text.back() == '\r') text.pop_back();
        return text;
    }
    bool atEnd() const { return !m_in.good(); }

private:
    static constexpr std::size_t kMostCharacters = 255;
    std::istream& m_in;
    bool m_isInsideLine = false;
};

bool isComment(const std::string& text) {
    return !text.empty() && text.front() == '#';
}

/// The number that the text [from, end) begins with, and where it stops: 0 and `from` when there is none. Too
/// small a number is 0, too large a one infinite.
double parseNumber(const char*& from, const char* end) {
    const char* start =
        std::find_if_not(from, end, [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
    if (end - start > 1 && *start == '+' && start[1] != '-') ++start;
    double value = 0.0;
    const auto [stop, error] = std::from_chars(start, end, value);
    if (error == std::errc::invalid_argument || !std::isfinite(value)) return 0.0;
    from = stop;
    if (error != std::errc::result_out_of_range) return value;
    // A line is too short for as many digits, so it is the exponent that leads out of range.
    const std::string_view number(start, static_cast<std::size_t>(stop - start));
    const bool isTiny = number.find("e-") != number.npos || number.find("E-") != number.npos;
    return std::copysign(isTiny ? 0.0 : std::numeric_limits<double>::infinity(), *start == '-' ? -1.0 : 1.0);
}

/// Three numbers; each conversion starts where the one before it stopped.
RowVector parseNumbers(const std::string& text) {
    RowVector v;
    const char* from = text.data();
    for (double& x : v)
        x = parseNumber(from, text.data() + text.size());
    return v;
}

void logParameters(const char* const (&labels)[3], const RowVector& v) {
    std::string text;
    append(text, labels[0], v[0], labels[1], v[1], labels[2], v[2]);
    log(text);
}

std::streamoff lengthOf(std::ifstream& in) {
    in.seekg(0, std::ios::end);
    const std::streamoff length = in.tellg();
    in.clear();
    in.seekg(0, std::ios::beg);
    return length;
}

double floatFrom(const unsigned char* bytes) {
    std::uint32_t bits = 0;
    for (int i = 3; i >= 0; --i)
        bits = (bits << 8U) | bytes[i];
    return std::bit_cast<float>(bits);
}

}  // namespace

bool CellFileImportExport::writeCellFile_version_1(const std::string& file, double* a, double* b, double* c) {
    if (!a || !b || !c) return false;
    log("cell file to save: " + file);
    std::ofstream out(file, std::ios::binary);
    if (!out) return fail("ERROR: Error while opening file to write " + file);
    const RowVectors v = {{{a[0], a[1], a[2]}, {b[0], b[1], b[2]}, {c[0], c[1], c[2]}}};
    logVectors("zu speicherende Cell-Vektoren: ", v);
    return writeAll(out, file, bytesOfVersion1(v));
}

bool CellFileImportExport::writeCellFile_version_1(const std::string& file, UnitCell* cell) {
    if (!cell) return false;
    RowVectors v = vectorsOf(*cell);
    return writeCellFile_version_1(file, v[0].data(), v[1].data(), v[2].data());
}

bool CellFileImportExport::loadCellFile_version_1(const std::string& file, double* a, double* b, double* c) {
    if (!a || !b || !c) return false;
    log("cell file to load: " + file);
    std::ifstream in(file, std::ios::binary);
    if (!in) return fail("Error while opening file");
    const std::streamoff length = lengthOf(in);
    log(" file length: " + std::to_string(length));
    if (length != static_cast<std::streamoff>(kVersion1Length)) return fail("ERROR: wrong file length!!!");
    std::array<char, kVersion1Length> bytes{};
    if (!in.read(bytes.data(), bytes.size())) return fail("ERROR: wrong file length!!!");
    double* const vectors[3] = {a, b, c};
    for (std::size_t i = 0; i < 9; ++i)
        vectors[i % 3][i / 3] = floatFrom(reinterpret_cast<const unsigned char*>(bytes.data()) + 4 * i);
    logVectors("eingelesene Cell-Vektoren: ", {{{a[0], a[1], a[2]}, {b[0], b[1], b[2]}, {c[0], c[1], c[2]}}});
    return true;
}

bool CellFileImportExport::loadCellFile_version_1(const std::string& file, UnitCell* cell) {
    RowVectors v = {};
    if (!cell || !loadCellFile_version_1(file, v[0].data(), v[1].data(), v[2].data())) return false;
    return cell->setNewBase(v[0].data(), v[1].data(), v[2].data(), false, true);
}

bool CellFileImportExport::writeCellFile_version_2(const std::string& file, UnitCell* cell) {
    if (!cell) return false;
    log("cell file to save: " + file);
    std::ofstream out(file);
    if (!out) return fail("ERROR: Error while opening file to write " + file);
    const std::unique_ptr<UnitCell> reciprocal(cell->isRealCell() ? cell->getReciprocalCell()
                                                                  : new UnitCell(*cell));
    logVectors("zu speicherende Cell-Vektoren: ", vectorsOf(*reciprocal));
    return writeAll(out, file, textOfVersion2(*reciprocal));
}

bool CellFileImportExport::loadCellFile_version_2(const std::string& file, UnitCell* cell, double pixelsize) {
    if (!cell) return false;
    log("cell file to load: " + file);
    std::ifstream in(file);
    if (!in) return fail("Error while opening file");
    LineReader lines(in);
    if (!isComment(lines.next()))
        return fail("The first line of the cell file " + file + " has no number sign");
    while (!lines.atEnd() && !isComment(lines.next())) {
    }
    RowVectors v;
    for (RowVector& vector : v)
        vector = parseNumbers(lines.next());
    lines.next();
    const RowVector edges = parseNumbers(lines.next());
    const RowVector angles = parseNumbers(lines.next());
    lines.next();
    const RowVector directEdges = parseNumbers(lines.next());
    const RowVector directAngles = parseNumbers(lines.next());
    if (in.bad()) return fail("Error while reading file " + file);

    cell->setNewBase(v[0].data(), v[1].data(), v[2].data(), false, true);
    cell->setPixelsize(pixelsize);
    logVectors("eingelesene Cell-Daten: ", v);
    logParameters({"|a| = ", ", |b| = ", ", |c| = "}, edges);
    logParameters({"alpha = ", ", beta = ", ", gamma = "}, angles);
    logParameters({"|a_real| = ", ", |b_real| = ", ", |c_real| = "}, directEdges);
    logParameters({"alpha_real = ", ", beta_real = ", ", gamma_real = "}, directAngles);
    return true;
}

bool CellFileImportExport::loadCellFile(const std::string& file, UnitCell* cell, double pixelsize) {
    std::ifstream in(file);
    if (!in) return fail("Error while opening file");
    std::array<char, kVersion2.size()> head{};
    in.read(head.data(), head.size());
    if (in && std::string_view(head.data(), head.size()) == kVersion2) {
        log("cell file has format version 2", VRK::Debug);
        return loadCellFile_version_2(file, cell, pixelsize);
    }
    in.close();
    in.clear();
    in.open(file, std::ios::binary);
    if (in && lengthOf(in) == static_cast<std::streamoff>(kVersion1Length)) {
        log("cell file has format version 1", VRK::Debug);
        return loadCellFile_version_1(file, cell);
    }
    return fail("Unkown cell file format");
}

bool CellFileImportExport::loadCellFile(const std::string& file, double* a, double* b, double* c,
                                        double pixelsize) {
    UnitCell cell;
    if (!a || !b || !c || !loadCellFile(file, &cell, pixelsize)) return false;
    cell.getBase(a, b, c);
    return true;
}
