#include "pipeline/base/FileChecksum.h"

#include <zlib.h>

#include <fstream>
#include <vector>

#include "pipeline/base/Failure.h"

namespace vrk {

FileChecksum checksumOf(const std::filesystem::path& path) {
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path.string());
    std::vector<char> piece(kPiece);
    FileChecksum checksum;
    while (file) {
        file.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        const auto count = static_cast<std::size_t>(file.gcount());
        checksum.bytes += count;
        checksum.crc32 = static_cast<std::uint32_t>(
            crc32(checksum.crc32, reinterpret_cast<const Bytef*>(piece.data()), static_cast<uInt>(count)));
    }
    if (file.bad()) throw Failure("cannot read " + path.string() + " to its end");
    return checksum;
}

}  // namespace vrk
