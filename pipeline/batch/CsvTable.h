/// \file
/// Tables of text with a head, as spreadsheets write them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace vrk {

/// A table. Every row has as many fields as there are columns.
struct CsvTable {
    struct Row {
        std::vector<std::string> fields;
        std::size_t line = 0;  ///< of the file on which it begins, from 1
    };
    std::vector<std::string> columns;
    std::vector<Row> rows;
};

/// Reads a table (RFC 4180): fields in quotes may hold separators, quotes and line ends. The separator is
/// that of comma, semicolon and tab which the head has most of. Empty lines are left out. Throws Failure that
/// names the line when a quote is not closed or a row has another number of fields than the head.
/// \param name  for messages
CsvTable csvTable(std::string_view text, const std::string& name);

/// The same of a file. Throws Failure when it cannot be read or has more than 1 GB.
CsvTable readCsv(const std::filesystem::path& path);

/// A field of a table with commas, in quotes where it needs them.
std::string csvField(std::string_view text);

}  // namespace vrk
