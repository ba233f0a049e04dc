/// \file
/// By what a file is known again.
#pragma once

#include <cstdint>
#include <filesystem>

namespace vrk {

struct FileChecksum {
    std::uint64_t bytes = 0;
    std::uint32_t crc32 = 0;  ///< as zip, gzip and crc32(1) have it
};

/// Throws Failure when the file cannot be read.
FileChecksum checksumOf(const std::filesystem::path& path);

}  // namespace vrk
