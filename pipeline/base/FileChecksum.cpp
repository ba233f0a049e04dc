#include "pipeline/base/FileChecksum.h"

#include <nettle/sha2.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <span>

#include "pipeline/base/ChecksumList.h"
#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

/// Takes no memory and sets nothing up, so nothing in it can fail.
class Sha256 {
public:
    Sha256() { sha256_init(&m_state); }
    void add(std::span<const char> bytes) {
        sha256_update(&m_state, bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data()));
    }
    std::string hex() {
        std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest{};
        sha256_digest(&m_state, digest.size(), digest.data());
        std::string text;
        for (const std::uint8_t byte : digest) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

private:
    sha256_ctx m_state{};
};

/// Takes bytes in pieces.
class Sums {
public:
    void add(std::span<const char> bytes) {
        m_sum.bytes += bytes.size();
        m_sum.crc32 = static_cast<std::uint32_t>(crc32(
            m_sum.crc32, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
        m_sha256.add(bytes);
    }
    FileChecksum result() {
        m_sum.sha256 = m_sha256.hex();
        return m_sum;
    }

private:
    FileChecksum m_sum;
    Sha256 m_sha256;
};

FileChecksum checksumOfFile(const std::filesystem::path& path) {
    constexpr std::size_t kPiece = std::size_t{1} << 18;
    std::ifstream file(path, std::ios::binary);
    if (!file) throw Failure("cannot read " + path.string());
    std::vector<char> piece(kPiece);
    Sums sums;
    while (file) {
        file.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        sums.add({piece.data(), static_cast<std::size_t>(file.gcount())});
    }
    if (file.bad()) throw Failure("cannot read " + path.string() + " to its end");
    return sums.result();
}

}  // namespace

FileChecksum checksumOf(const std::filesystem::path& path) {
    if (!std::filesystem::is_directory(path)) return checksumOfFile(path);
    Sums sums;
    std::uint64_t bytes = 0;
    for (const ChecksumLine& line : checksumsIn(path)) {
        sums.add(line.text());
        bytes += line.bytes;
    }
    FileChecksum whole = sums.result();
    whole.bytes = bytes;
    return whole;
}

FileState stateOf(const std::filesystem::path& path) {
    struct stat state = {};
    if (stat(path.c_str(), &state) != 0) throw Failure(path.string() + " is not there any more");
    return {state.st_mtim.tv_sec, state.st_mtim.tv_nsec, state.st_ino, state.st_dev,
            static_cast<std::uint64_t>(state.st_size)};
}

void refuseChanged(const std::filesystem::path& path, const FileState& state) {
    if (stateOf(path) == state) return;
    throw Failure(
        path.string() +
        " was changed while it was in use, and a result could be of two states of it; run again when it is "
        "complete");
}

std::vector<RecordedFile> recordStates(const std::vector<std::filesystem::path>& paths) {
    std::vector<RecordedFile> files;
    for (const std::filesystem::path& path : paths) {
        std::error_code none;
        const bool isThere =
            std::filesystem::is_regular_file(path, none) || std::filesystem::is_directory(path, none);
        if (isThere) files.push_back({path, {}, stateOf(path)});
    }
    return files;
}

void addChecksums(std::vector<RecordedFile>& files) {
    for (RecordedFile& file : files) {
        file.checksum = checksumOf(file.path);
        refuseChanged(file.path, file.state);
    }
}

std::vector<RecordedFile> recordFiles(const std::vector<std::filesystem::path>& paths) {
    std::vector<RecordedFile> files = recordStates(paths);
    addChecksums(files);
    return files;
}

void refuseChanged(const std::vector<RecordedFile>& files) {
    for (const RecordedFile& file : files)
        refuseChanged(file.path, file.state);
}

}  // namespace vrk
