#include "pipeline/formats/ReflectionTable.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <string>
#include <string_view>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

enum Column : std::size_t {
    kH,
    kK,
    kL,
    kCrystal,
    kX,
    kY,
    kZ,
    kD,
    kTilt,
    kFrame,
    kColumn,
    kRow,
    kCounts,
    kIntensity,
    kSigma,
    kIndexed,
    kSeen,
    kCut,
    kColumns
};
constexpr std::array<std::string_view, kColumns> kNames = {
    "h",     "k",      "l",   "crystal", "x",         "y",     "z",       "d",    "tilt",
    "frame", "column", "row", "counts",  "intensity", "sigma", "indexed", "seen", "cut"};

/// A line in the making.
class RowText {
public:
    void add(int value) {
        comma();
        write([&](char* first, char* last) { return std::to_chars(first, last, value).ptr; });
    }
    void add(double value, int digits) {
        comma();
        if (!std::isfinite(value)) return;
        write([&](char* first, char* last) {
            return std::to_chars(first, last, value, std::chars_format::fixed, digits).ptr;
        });
    }
    /// So many significant digits.
    void addSignificant(double value, int digits) {
        comma();
        if (!std::isfinite(value)) return;
        write([&](char* first, char* last) {
            return std::to_chars(first, last, value, std::chars_format::general, digits).ptr;
        });
    }
    void addNothing() { comma(); }
    const std::string& end() { return m_text += '\n'; }

private:
    void comma() {
        if (m_any) m_text += ',';
        m_any = true;
    }
    template <typename Writer>
    void write(Writer writer) {
        std::array<char, 400> buffer;
        m_text.append(buffer.data(), writer(buffer.data(), buffer.data() + buffer.size()));
    }

    std::string m_text;
    bool m_any = false;
};

std::string rowOf(const ListedReflection& one) {
    RowText row;
    for (const int index : one.hkl)
        one.crystal > 0 ? row.add(index) : row.addNothing();
    row.add(one.crystal);
    for (const double coordinate : one.place)
        row.add(coordinate, 6);
    row.add(one.spacing, 5);
    row.add(one.tilt, 3);
    row.add(one.frame);
    row.add(one.column, 2);
    row.add(one.row, 2);
    one.seen() ? row.addSignificant(one.counts, 7) : row.addNothing();
    one.measured() ? row.addSignificant(one.intensity, 7) : row.addNothing();
    one.measured() ? row.addSignificant(one.sigma, 5) : row.addNothing();
    row.add(one.crystal > 0 ? 1 : 0);
    row.add(one.seen() ? 1 : 0);
    row.add(one.cut ? 1 : 0);
    return row.end();
}

std::vector<std::string_view> fieldsOf(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    std::vector<std::string_view> fields;
    for (std::size_t start = 0;;) {
        const std::size_t comma = line.find(',', start);
        fields.push_back(line.substr(start, comma - start));
        if (comma == std::string_view::npos) return fields;
        start = comma + 1;
    }
}

/// Rows of a table by the names of its columns.
class TableReader {
public:
    TableReader(const std::filesystem::path& path, std::string_view header) : m_path(path) {
        const std::vector<std::string_view> names = fieldsOf(header);
        for (std::size_t column = 0; column < kColumns; ++column) {
            const auto place = std::find(names.begin(), names.end(), kNames[column]);
            if (place == names.end()) fail("has no column " + std::string(kNames[column]));
            m_place[column] = static_cast<std::size_t>(place - names.begin());
        }
    }

    ListedReflection read(std::string_view line) {
        ++m_line;
        m_fields = fieldsOf(line);
        ListedReflection one;
        one.hkl = {whole(kH), whole(kK), whole(kL)};
        one.crystal = whole(kCrystal);
        one.place = {number(kX), number(kY), number(kZ)};
        one.spacing = number(kD);
        one.tilt = number(kTilt);
        one.frame = whole(kFrame);
        one.column = number(kColumn);
        one.row = number(kRow);
        one.counts = number(kCounts);
        one.intensity = number(kIntensity);
        one.sigma = number(kSigma);
        one.cut = whole(kCut) != 0;
        return one;
    }

private:
    template <typename Value>
    Value value(Column column) const {
        Value result{};
        if (m_place[column] >= m_fields.size()) fail("has too few columns");
        const std::string_view text = m_fields[m_place[column]];
        if (text.empty()) return result;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
        if (error != std::errc() || end != text.data() + text.size())
            fail("has no number in the column " + std::string(kNames[column]) + ": " +
                 std::string(text.substr(0, 40)));
        return result;
    }
    double number(Column column) const { return value<double>(column); }
    int whole(Column column) const { return value<int>(column); }

    [[noreturn]] void fail(const std::string& what) const {
        throw Failure(m_path.string() + ", line " + std::to_string(m_line) + ", " + what +
                      "; 'vrk run' writes the table anew");
    }

    const std::filesystem::path& m_path;
    std::size_t m_line = 1;
    std::array<std::size_t, kColumns> m_place{};
    std::vector<std::string_view> m_fields;
};

}  // namespace

void writeReflectionTable(std::span<const ListedReflection> reflections, const std::filesystem::path& path) {
    std::ofstream file(path, std::ios::binary);
    for (std::size_t column = 0; column < kColumns; ++column)
        file << (column > 0 ? "," : "") << kNames[column];
    file << '\n';
    for (const ListedReflection& one : reflections)
        file << rowOf(one);
    file.close();
    if (!file) throw Failure("cannot write " + path.string() + "; check the free space");
}

std::vector<ListedReflection> readReflectionTable(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return readReflectionTable(file, path);
}

std::vector<ListedReflection> readReflectionTable(std::istream& text, const std::filesystem::path& path) {
    std::string line;
    if (!std::getline(text, line)) throw Failure("cannot read " + path.string());
    TableReader reader(path, line);
    std::vector<ListedReflection> reflections;
    while (std::getline(text, line))
        reflections.push_back(reader.read(line));
    if (text.bad()) throw Failure("cannot read " + path.string() + " to its end");
    return reflections;
}

}  // namespace vrk
