#include "pipeline/base/ChecksumList.h"

#include <algorithm>
#include <fstream>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDigits = 64;

/// A name with a line end or backslash stands with these as \n, \r and \\, after a backslash at the beginning
/// of its line.
std::string escaped(const std::string& name) {
    std::string text;
    for (const char c : name)
        text += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\\' ? "\\\\" : std::string(1, c);
    return text;
}

std::string unescaped(const std::string& text) {
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            name += text[i];
            continue;
        }
        const char next = text[++i];
        name += next == 'n' ? '\n' : next == 'r' ? '\r' : next;
    }
    return name;
}

bool staysInside(const fs::path& name) {
    return !name.empty() && name.is_relative() &&
           std::none_of(name.begin(), name.end(), [](const fs::path& part) { return part == ".."; });
}

ChecksumLine lineOf(std::string text, const std::string& place) {
    const bool isEscaped = text.starts_with('\\');
    if (isEscaped) text.erase(0, 1);
    ChecksumLine line;
    line.sha256 = text.substr(0, kDigits);
    const bool isGood = text.size() > kDigits + 2 && text[kDigits] == ' ' &&
                        line.sha256.find_first_not_of("0123456789abcdef") == std::string::npos;
    if (isGood) line.name = text.substr(kDigits + 2);
    if (isEscaped) line.name = unescaped(line.name);
    if (!isGood || !staysInside(line.name))
        throw Failure(place + " is damaged: no checksum and name of a file in the folder");
    return line;
}

void write(const std::vector<ChecksumLine>& lines, const fs::path& folder) {
    std::string text;
    for (const ChecksumLine& line : lines)
        text += line.text();
    OutputFile file(folder / kChecksumFile);
    writeText(text, file.path());
    file.commit();
}

}  // namespace

std::string ChecksumLine::text() const {
    const std::string shown = escaped(name);
    return (shown == name ? "" : "\\") + sha256 + "  " + shown + '\n';
}

std::vector<ChecksumLine> checksumsIn(const fs::path& folder) {
    std::vector<ChecksumLine> lines;
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (!entry->is_regular_file()) continue;
        const std::string name = entry->path().lexically_relative(folder).generic_string();
        if (name == kChecksumFile) continue;
        lines.push_back({name, {}, 0});
    }
    if (error) throw Failure("cannot read the folder " + folder.string() + ": " + error.message());
    VRK::shareItems(lines.size(), [&](std::size_t i, std::size_t) {
        const FileChecksum checksum = checksumOf(folder / lines[i].name);
        lines[i].sha256 = checksum.sha256;
        lines[i].bytes = checksum.bytes;
    });
    std::sort(lines.begin(), lines.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return lines;
}

void writeChecksums(const fs::path& folder) {
    write(checksumsIn(folder), folder);
}

std::vector<ChecksumLine> readChecksums(const fs::path& folder) {
    const fs::path path = folder / kChecksumFile;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path.string());
    std::vector<ChecksumLine> lines;
    for (std::string text; std::getline(file, text);) {
        const bool hasEnd = !file.eof();
        lines.push_back(lineOf(text, path.string() + " line " + std::to_string(lines.size() + 1)));
        if (!hasEnd) throw Failure(path.string() + " is cut off");
    }
    if (lines.empty()) throw Failure(path.string() + " is empty");
    return lines;
}

void updateChecksum(const fs::path& folder, const std::string& name) {
    std::error_code none;
    if (!fs::exists(folder / kChecksumFile, none)) return;
    std::vector<ChecksumLine> lines = readChecksums(folder);
    const auto line = std::find_if(lines.begin(), lines.end(), [&](const auto& l) { return l.name == name; });
    if (line == lines.end()) return;
    line->sha256 = checksumOf(folder / name).sha256;
    write(lines, folder);
}

}  // namespace vrk
