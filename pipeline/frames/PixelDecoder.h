/// \file
/// Pixels of binary files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vrk {

enum class PixelType {
    Int8,
    UInt8,
    Int16,
    UInt16,
    Int32,
    UInt32,
    Int64,
    UInt64,
    Float16,  ///< IEEE 754 binary16
    Float32,
    Float64
};

std::size_t bytesOf(PixelType type);

/// As many numbers as there is room for, of a file's bytes; unsigned ones of 32 or 64 bits that are all set
/// stand for dead pixels and become no numbers (NaN). \p bigEndian: how the file stores them.
void decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian, std::span<float> pixels);
/// All numbers of these bytes.
std::vector<float> decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian);

/// One number at a byte position; the position must lie inside.
double decodeNumber(std::span<const char> bytes, std::size_t position, PixelType type, bool bigEndian);
/// The same of a type of whole numbers (0 for others), to the last digit; the largest number stands for those
/// beyond.
std::int64_t decodeInteger(std::span<const char> bytes, std::size_t position, PixelType type, bool bigEndian);

}  // namespace vrk
