/// \file
/// Pixels of binary files.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace vrk {

enum class PixelType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32 };

std::size_t bytesOf(PixelType type);

/// Numbers of a file's bytes. \p bigEndian: how the file stores them.
std::vector<float> decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian);

/// One number at a byte position; the position must lie inside.
double decodeNumber(std::span<const char> bytes, std::size_t position, PixelType type, bool bigEndian);
double decodeDouble(std::span<const char> bytes, std::size_t position, bool bigEndian);

}  // namespace vrk
