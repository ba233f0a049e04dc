#include "pipeline/frames/FileContent.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string_view>
#include <system_error>

#include "pipeline/base/Failure.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/FrameSource.h"

namespace vrk {
namespace {

using namespace std::string_view_literals;
using Kind = FileContent::Kind;

struct Mark {
    std::string_view bytes;
    Kind kind;
    const char* name;
};

constexpr std::array kMarks = {
    Mark{"#VRKPEAKSVERSION"sv, Kind::PeakFile, "a peak file"},
    Mark{"#VRKCELLVERSION"sv, Kind::CellFile, "a cell file"},
    Mark{"\x89PNG"sv, Kind::Picture, "a PNG picture"},
    Mark{"\xff\xd8\xff"sv, Kind::Picture, "a JPEG picture"},
    Mark{"GIF8"sv, Kind::Picture, "a GIF picture"},
    Mark{"BM"sv, Kind::Picture, "a BMP picture"},
    Mark{"%PDF"sv, Kind::Picture, "a PDF file"},
};

bool isText(std::string_view bytes) {
    return !bytes.empty() && std::all_of(bytes.begin(), bytes.end(), [](char c) {
        return c == '\n' || c == '\r' || c == '\t' || static_cast<unsigned char>(c) >= ' ';
    });
}

std::string article(const std::string& name) {
    return (name.find_first_of("AEFHILMNORSX") == 0 ? "an " : "a ") + name;
}

[[noreturn]] void refuse(const std::filesystem::path& path, const std::string& reason) {
    throw Failure(path.string() + reason);
}

std::ifstream opened(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error))
        refuse(path, " is a folder; name a file in it, or make a series of its frames with 'vrk import " +
                         path.string() + " -o series.mrc'");
    std::ifstream file(path, std::ios::binary);
    if (!file) refuse(path, std::string(" cannot be opened for reading (") + std::strerror(errno) + ")");
    return file;
}

}  // namespace

FileContent FileContent::of(const std::filesystem::path& path) {
    std::ifstream file = opened(path);
    std::array<char, 512> bytes{};
    file.read(bytes.data(), bytes.size());
    const std::string_view head(bytes.data(), static_cast<std::size_t>(file.gcount()));
    for (const Mark& mark : kMarks)
        if (head.starts_with(mark.bytes)) return {mark.kind, mark.name};
    // What stands in a pipe can be read once.
    if (!std::filesystem::is_regular_file(path)) return {};
    if (const FrameFormat* format = FrameFormat::of(FrameSource(path))) {
        const bool packed = head.starts_with("\x1f\x8b"sv) || head.starts_with("BZh"sv);
        if (format->name == "MRC" && !packed) return {Kind::Mrc, "an MRC file"};
        return {Kind::Frame, article(format->name) + (packed ? " file that is packed" : " file")};
    }
    if (isText(head)) return {Kind::OtherText, "a text"};
    return {};
}

void refuseUnlessMrc(const std::filesystem::path& path) {
    const FileContent content = FileContent::of(path);
    switch (content.kind) {
        case Kind::Frame:
            refuse(path, " is " + content.name +
                             " as microscopes write it, not a series; 'vrk import' makes a series of all "
                             "frames of a tilt series");
        case Kind::Picture:
            refuse(path, " is " + content.name +
                             ", which has no counts of a detector; 'vrk import' reads frames as the camera "
                             "wrote them");
        case Kind::PeakFile:
            refuse(path, " is a peak file, not an MRC file; 'vrk cell' and 'vrk index' read peak files");
        case Kind::CellFile:
            refuse(path,
                   " is a cell file, not an MRC file; 'vrk index' and 'vrk sections' take cell files as "
                   "their second");
        case Kind::OtherText:
            refuse(path, " is a text, not an MRC file; 'vrk import' reads lists that name frames");
        case Kind::Mrc:
        case Kind::Unknown:
            break;
    }
}

void refuseUnlessPeaks(const std::filesystem::path& path) {
    const FileContent content = FileContent::of(path);
    if (content.kind == Kind::CellFile)
        refuse(path, " is a cell file, not a list of peaks; are the two names swapped?");
    if (content.kind == Kind::Mrc)
        refuse(path, " is an MRC file, not a list of peaks; 'vrk peaks' finds those of a volume");
    if (content.kind == Kind::Frame || content.kind == Kind::Picture)
        refuse(path, " is " + content.name + ", not a list of peaks");
}

void refuseUnlessCell(const std::filesystem::path& path) {
    const FileContent content = FileContent::of(path);
    if (content.kind == Kind::PeakFile)
        refuse(path, " is a peak file, not a cell file; are the two names swapped?");
    if (content.kind == Kind::Mrc || content.kind == Kind::Frame || content.kind == Kind::Picture)
        refuse(path, " is " + content.name + ", not a cell file; 'vrk cell' writes one");
}

}  // namespace vrk
