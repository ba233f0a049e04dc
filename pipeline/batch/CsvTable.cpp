#include "pipeline/batch/CsvTable.h"

#include <algorithm>
#include <array>
#include <utility>

#include "pipeline/base/Failure.h"
#include "pipeline/base/FileText.h"

namespace vrk {
namespace {

char separatorOf(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of("\r\n"), text.size()));
    const std::string_view head = text.substr(0, text.find('\n'));
    constexpr std::array<char, 3> kSeparators = {',', ';', '\t'};
    return *std::max_element(kSeparators.begin(), kSeparators.end(), [&](char left, char right) {
        return std::count(head.begin(), head.end(), left) < std::count(head.begin(), head.end(), right);
    });
}

/// Takes one record after another off a text.
class RecordReader {
public:
    RecordReader(std::string_view text, const std::string& name)
        : m_text(text), m_name(name), m_separator(separatorOf(text)) {}

    bool atEnd() const { return m_at >= m_text.size(); }

    CsvTable::Row next() {
        CsvTable::Row row{{""}, m_line};
        while (!atEnd()) {
            const char sign = m_text[m_at++];
            if (sign == '"' && row.fields.back().empty()) {
                takeQuoted(row);
            } else if (sign == m_separator) {
                row.fields.emplace_back();
            } else if (sign == '\n') {
                ++m_line;
                break;
            } else if (sign != '\r' || (!atEnd() && m_text[m_at] != '\n')) {
                row.fields.back() += sign;
            }
        }
        return row;
    }

private:
    void takeQuoted(CsvTable::Row& row) {
        while (!atEnd()) {
            const char sign = m_text[m_at++];
            if (sign == '\n') ++m_line;
            if (sign != '"') {
                row.fields.back() += sign;
            } else if (!atEnd() && m_text[m_at] == '"') {
                row.fields.back() += m_text[m_at++];
            } else {
                return;
            }
        }
        throw Failure(m_name + ", line " + std::to_string(row.line) + ": a quote is not closed");
    }

    std::string_view m_text;
    const std::string& m_name;
    char m_separator;
    std::size_t m_at = 0;
    std::size_t m_line = 1;
};

bool isEmpty(const CsvTable::Row& row) {
    return std::all_of(row.fields.begin(), row.fields.end(), [](const auto& field) { return field.empty(); });
}

}  // namespace

CsvTable csvTable(std::string_view text, const std::string& name) {
    constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
    if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
    RecordReader reader(text, name);
    CsvTable table;
    while (!reader.atEnd() && table.columns.empty())
        if (CsvTable::Row head = reader.next(); !isEmpty(head)) table.columns = std::move(head.fields);
    while (!reader.atEnd()) {
        CsvTable::Row row = reader.next();
        if (isEmpty(row)) continue;
        if (row.fields.size() != table.columns.size())
            throw Failure(name + ", line " + std::to_string(row.line) + ": " +
                          std::to_string(row.fields.size()) + " fields where the head has " +
                          std::to_string(table.columns.size()));
        table.rows.push_back(std::move(row));
    }
    return table;
}

CsvTable readCsv(const std::filesystem::path& path) {
    return csvTable(textOfFile(path), path.string());
}

std::string csvField(std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
    std::string field = "\"";
    for (const char sign : text)
        field += sign == '"' ? std::string("\"\"") : std::string(1, sign);
    return field + '"';
}

}  // namespace vrk
