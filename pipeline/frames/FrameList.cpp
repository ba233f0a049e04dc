#include "pipeline/frames/FrameList.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <map>
#include <set>

#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"

namespace vrk {
namespace {

std::vector<ListFormat>& listFormats() {
    static std::vector<ListFormat> all;
    return all;
}

const ListFormat* formatOf(const ListText& text) {
    for (const ListFormat& format : listFormats())
        if (format.recognise(text)) return &format;
    return nullptr;
}

std::string shortened(const std::string& text) {
    return text.size() <= 60 ? text : text.substr(0, 60) + "...";
}

/// The last number in a file's name, without its extensions.
std::optional<long long> numberIn(const std::filesystem::path& file) {
    const std::string name = file.filename().string();
    const std::string stem = name.substr(0, name.find('.', 1));
    const std::size_t last = stem.find_last_of("0123456789");
    if (last == std::string::npos) return std::nullopt;
    const std::size_t before = stem.find_last_not_of("0123456789", last);
    const std::size_t first = before == std::string::npos ? 0 : before + 1;
    long long number = 0;
    const auto [end, error] = std::from_chars(stem.data() + first, stem.data() + last + 1, number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

std::string stemOf(const std::filesystem::path& file) {
    const std::string name = file.filename().string();
    return name.substr(0, name.find('.', 1));
}

std::vector<double> sweepTilts(const FrameList::Sweep& sweep,
                               const std::vector<std::filesystem::path>& files) {
    std::vector<long long> numbers;
    for (const std::filesystem::path& file : files)
        if (const auto number = numberIn(file)) numbers.push_back(*number);
    const bool numbered = numbers.size() == files.size() &&
                          std::set<long long>(numbers.begin(), numbers.end()).size() == files.size();
    const bool allThere = sweep.count && *sweep.count == static_cast<long long>(files.size());
    std::vector<double> tilts;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const double steps = numbered && !allThere
                                 ? static_cast<double>(numbers[i]) - static_cast<double>(sweep.first)
                                 : static_cast<double>(i);
        tilts.push_back(sweep.start + steps * sweep.step);
    }
    return tilts;
}

}  // namespace

ListText::ListText(const std::filesystem::path& path) : m_path(path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path.string() + ": there is no such file");
    // Lists of this kind have some kilobytes; longer ones are something else.
    constexpr std::uintmax_t longest = 50'000'000;
    std::error_code error;
    if (std::filesystem::file_size(path, error) > longest || error)
        throw Failure("cannot read " + path.string() + ": it is not a text file of reasonable size");
    readLines(file);
}

ListText::ListText(std::filesystem::path path, std::istream& text) : m_path(std::move(path)) {
    readLines(text);
}

void ListText::readLines(std::istream& text) {
    for (std::string line; std::getline(text, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        m_lines.push_back(line);
    }
    if (text.bad()) throw Failure("cannot read " + m_path.string() + " to its end");
}

std::filesystem::path ListText::file(std::string name) const {
    std::replace(name.begin(), name.end(), '\\', '/');
    return m_path.parent_path() / name;
}

double ListText::tilt(std::size_t line, const std::string& text) const {
    double tilt = 0;
    if (!parseNumber(text, tilt) || std::abs(tilt) > 360)
        refuse(line, "\"" + shortened(text) + "\" is not a tilt in degrees");
    return tilt;
}

void ListText::refuse(std::size_t line, const std::string& reason) const {
    throw Failure(m_path.string() + ", line " + std::to_string(line + 1) + ": " + reason);
}

ListFormat::Registration::Registration(ListFormat format) {
    listFormats().push_back(std::move(format));
}

std::vector<double> FrameList::tiltsFor(const std::vector<std::filesystem::path>& files) const {
    if (sweep) return sweepTilts(*sweep, files);
    std::map<std::string, double> byName;
    for (const Entry& entry : frames)
        if (!entry.path.empty()) byName[stemOf(entry.path)] = entry.tilt;
    std::vector<double> tilts;
    for (const std::filesystem::path& file : files) {
        const auto found = byName.find(stemOf(file));
        if (found != byName.end()) tilts.push_back(found->second);
    }
    const std::set<std::filesystem::path> different(files.begin(), files.end());
    if (tilts.size() == files.size() && different.size() == files.size()) return tilts;

    if (frames.size() != files.size())
        throw Failure(source.string() + " has " + std::to_string(frames.size()) + " tilts, but there are " +
                      std::to_string(files.size()) + " frames");
    tilts.clear();
    for (const Entry& entry : frames)
        tilts.push_back(entry.tilt);
    return tilts;
}

bool isFrameList(const std::filesystem::path& path) {
    constexpr std::size_t longest = 1'000'000;
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) || std::filesystem::file_size(path, error) > longest)
        return false;
    std::array<char, 4096> start{};
    std::ifstream file(path, std::ios::binary);
    file.read(start.data(), start.size());
    const auto read = start.begin() + file.gcount();
    if (std::find(start.begin(), read, '\0') != read) return false;
    return formatOf(ListText(path)) != nullptr;
}

FrameList readFrameList(const std::filesystem::path& path) {
    return readFrameList(ListText(path));
}

FrameList readFrameList(const ListText& text) {
    FrameList list;
    if (const ListFormat* format = formatOf(text)) {
        list = format->read(text);
    } else {
        for (std::size_t i = 0; i < text.lines().size(); ++i)
            if (text.lines()[i].find_first_not_of(" \t") != std::string::npos)
                list.frames.push_back({{}, text.tilt(i, text.lines()[i])});
    }
    list.source = text.path();
    return list;
}

}  // namespace vrk
