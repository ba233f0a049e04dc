/// \file
/// The checksums of the files in a folder, as sha256sum(1) lists and checks them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vrk {

/// The file that lists the checksums of a folder: `sha256sum --check SHA256SUMS`.
inline constexpr const char* kChecksumFile = "SHA256SUMS";

struct ChecksumLine {
    std::string name;    ///< relative to the folder, with '/' between folders
    std::string sha256;  ///< 64 digits
    std::uint64_t bytes = 0;

    /// As sha256sum prints it, with the end of the line.
    std::string text() const;
};

/// Of all files in a folder and in those within it, but its own list, ordered by the bytes of their names.
/// Throws Failure when one cannot be read.
std::vector<ChecksumLine> checksumsIn(const std::filesystem::path& folder);

/// Writes the list of a folder into it. Throws Failure when that is not possible.
void writeChecksums(const std::filesystem::path& folder);

/// Reads the list of a folder; sizes are not in it. Throws Failure that names the line which is damaged, and
/// when a name leads out of the folder.
std::vector<ChecksumLine> readChecksums(const std::filesystem::path& folder);

/// Where the folder has a list that names the file: puts the file's checksum right.
void updateChecksum(const std::filesystem::path& folder, const std::string& name);

}  // namespace vrk
