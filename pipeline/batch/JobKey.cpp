#include "pipeline/batch/JobKey.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "pipeline/base/Failure.h"
#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

/// The files that belong to an input, in the order of their names.
std::vector<fs::path> filesOf(const fs::path& input) {
    std::error_code error;
    std::vector<fs::path> files;
    if (fs::is_directory(input, error)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(input, error))
            if (entry.is_regular_file(error)) files.push_back(entry.path());
        if (error) throw Failure("cannot read the folder " + input.string() + ": " + error.message());
        std::sort(files.begin(), files.end());
        return files;
    }
    files.push_back(input);
    if (!isFrameList(input)) return files;
    for (const FrameList::Entry& entry : readFrameList(input).frames)
        if (!entry.path.empty() && entry.path != files.back()) files.push_back(entry.path);
    return files;
}

std::string checksumText(std::uint64_t bytes, std::uint32_t crc) {
    return formatted("%llu-%08x", static_cast<unsigned long long>(bytes), static_cast<unsigned>(crc));
}

/// Names may hold any bytes, the key is plain text.
std::string plainText(const std::string& text) {
    std::string plain;
    for (const char sign : text)
        plain += sign > ' ' && sign < 127 && sign != '%'
                     ? std::string(1, sign)
                     : formatted("%%%02x", static_cast<unsigned>(static_cast<unsigned char>(sign)));
    return plain;
}

}  // namespace

FileStamp stampOf(const fs::path& input) {
    FileStamp stamp;
    for (const fs::path& file : filesOf(input)) {
        struct stat status = {};
        if (stat(file.c_str(), &status) != 0)
            throw Failure("cannot read " + file.string() + ": " + std::strerror(errno));
        stamp.bytes += static_cast<std::uint64_t>(status.st_size);
        stamp.modified = std::max(
            stamp.modified, std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec);
    }
    return stamp;
}

std::string contentKey(const fs::path& input) {
    const std::vector<fs::path> files = filesOf(input);
    if (files.size() == 1 && files.front() == input) {
        const FileChecksum checksum = checksumOf(input);
        return checksumText(checksum.bytes, checksum.crc32);
    }
    std::uint64_t bytes = 0;
    std::string lines;
    for (const fs::path& file : files) {
        const FileChecksum checksum = checksumOf(file);
        bytes += checksum.bytes;
        lines += checksumText(checksum.bytes, checksum.crc32) + ' ' + file.filename().string() + '\n';
    }
    return checksumText(
        bytes, static_cast<std::uint32_t>(
                   crc32(0, reinterpret_cast<const Bytef*>(lines.data()), static_cast<uInt>(lines.size()))));
}

std::string settingsKey(const JobOptions& options, const std::string& version) {
    std::string key = "vrk " + version;
    for (const JobOption& option : options) {
        key += " --" + option.name;
        if (!option.value) continue;
        key += '=' + plainText(*option.value);
        std::error_code error;
        if (namesFile(option.name) && fs::is_regular_file(*option.value, error))
            key += " (" + contentKey(*option.value) + ')';
    }
    return key;
}

}  // namespace vrk
