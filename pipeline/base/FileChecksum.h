/// \file
/// By what files are known again.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vrk {

struct FileChecksum {
    std::uint64_t bytes = 0;
    std::uint32_t crc32 = 0;  ///< as zip, gzip and crc32(1) have it
    std::string sha256;       ///< as sha256sum(1) prints it
};

/// Of a file, or of a folder as a whole: that of the text with which sha256sum(1) lists its files, ordered by
/// the bytes of their names, which are relative to the folder and may lead into folders within; the size is
/// that of all. Throws Failure when something cannot be read.
FileChecksum checksumOf(const std::filesystem::path& path);

/// By what it is seen that a file was written to, replaced or removed.
struct FileState {
    std::int64_t seconds = 0, nanoseconds = 0;  ///< of its last change
    std::uint64_t inode = 0, device = 0, bytes = 0;

    bool operator==(const FileState&) const = default;
};

/// Throws Failure when there is no such file.
FileState stateOf(const std::filesystem::path& path);

/// Throws Failure when a file is not in this state any more.
void refuseChanged(const std::filesystem::path& path, const FileState& state);

/// An input as it was when it was recorded.
struct RecordedFile {
    std::filesystem::path path;
    FileChecksum checksum;
    FileState state;
};

/// What is there, without checksums; names without a file, and empty ones, are left out.
std::vector<RecordedFile> recordStates(const std::vector<std::filesystem::path>& paths);

/// Throws Failure when a file cannot be read, or is not as it was when its state was recorded.
void addChecksums(std::vector<RecordedFile>& files);

/// Checksums of what is there; names without a file, and empty ones, are left out. Throws Failure when one
/// cannot be read, or changes meanwhile.
std::vector<RecordedFile> recordFiles(const std::vector<std::filesystem::path>& paths);

/// Throws Failure when one of the files was written, replaced or removed since it was recorded.
void refuseChanged(const std::vector<RecordedFile>& files);

}  // namespace vrk
