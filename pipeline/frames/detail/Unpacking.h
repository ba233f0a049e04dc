/// \file
/// Unpacks what gzip (RFC 1952) and bzip2 packed.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <span>
#include <string>

namespace vrk::detail {

/// Gives the next packed bytes, valid until the next call; none at the end.
using ChunkReader = std::function<std::span<const char>()>;

ChunkReader chunksOf(const std::string& bytes);
ChunkReader chunksOf(std::shared_ptr<std::istream> stream);

enum class BeyondLimit {
    Refuse,  ///< the file is refused
    Stop     ///< what was unpacked so far is the result
};

/// Both append what they unpack, several members of a file one after the other, up to \p most bytes: a small
/// file can unpack to any length, and its header cannot be believed. False with the reason when the bytes are
/// damaged, incomplete or too many.
bool gunzip(const ChunkReader& next, std::uint64_t most, BeyondLimit beyond, std::string& unpacked,
            std::string& reason);
bool bunzip2(const ChunkReader& next, std::uint64_t most, BeyondLimit beyond, std::string& unpacked,
             std::string& reason);

}  // namespace vrk::detail
