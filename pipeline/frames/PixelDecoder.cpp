#include "pipeline/frames/PixelDecoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace vrk {
namespace {

template <class Number>
Number numberAt(const char* bytes, bool swap) {
    std::array<char, sizeof(Number)> raw;
    std::memcpy(raw.data(), bytes, sizeof(Number));
    if (swap) std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Number>(raw);
}

template <class Number>
void decodeAll(std::span<const char> bytes, bool swap, std::vector<float>& pixels) {
    for (std::size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<float>(numberAt<Number>(bytes.data() + i * sizeof(Number), swap));
}

constexpr bool kHostIsBig = std::endian::native == std::endian::big;

}  // namespace

std::size_t bytesOf(PixelType type) {
    switch (type) {
        case PixelType::Int8:
        case PixelType::UInt8:
            return 1;
        case PixelType::Int16:
        case PixelType::UInt16:
            return 2;
        default:
            return 4;
    }
}

std::vector<float> decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian) {
    const bool swap = bigEndian != kHostIsBig;
    std::vector<float> pixels(bytes.size() / bytesOf(type));
    switch (type) {
        case PixelType::Int8:
            decodeAll<std::int8_t>(bytes, swap, pixels);
            break;
        case PixelType::UInt8:
            decodeAll<std::uint8_t>(bytes, swap, pixels);
            break;
        case PixelType::Int16:
            decodeAll<std::int16_t>(bytes, swap, pixels);
            break;
        case PixelType::UInt16:
            decodeAll<std::uint16_t>(bytes, swap, pixels);
            break;
        case PixelType::Int32:
            decodeAll<std::int32_t>(bytes, swap, pixels);
            break;
        case PixelType::UInt32:
            decodeAll<std::uint32_t>(bytes, swap, pixels);
            break;
        case PixelType::Float32:
            decodeAll<float>(bytes, swap, pixels);
            break;
    }
    return pixels;
}

double decodeNumber(std::span<const char> bytes, std::size_t position, PixelType type, bool bigEndian) {
    const bool swap = bigEndian != kHostIsBig;
    const char* at = bytes.data() + position;
    switch (type) {
        case PixelType::Int8:
            return numberAt<std::int8_t>(at, swap);
        case PixelType::UInt8:
            return numberAt<std::uint8_t>(at, swap);
        case PixelType::Int16:
            return numberAt<std::int16_t>(at, swap);
        case PixelType::UInt16:
            return numberAt<std::uint16_t>(at, swap);
        case PixelType::Int32:
            return numberAt<std::int32_t>(at, swap);
        case PixelType::UInt32:
            return numberAt<std::uint32_t>(at, swap);
        default:
            return numberAt<float>(at, swap);
    }
}

double decodeDouble(std::span<const char> bytes, std::size_t position, bool bigEndian) {
    return numberAt<double>(bytes.data() + position, bigEndian != kHostIsBig);
}

}  // namespace vrk
