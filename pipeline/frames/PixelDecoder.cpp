#include "pipeline/frames/PixelDecoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

namespace vrk {
namespace {

constexpr bool kHostIsBig = std::endian::native == std::endian::big;

/// The bits of a number of two bytes.
struct Half {
    std::uint16_t bits;

    explicit operator float() const {
        const int exponent = (bits >> 10) & 31;
        const int mantissa = bits & 1023;
        float value = 0;
        if (exponent == 31)
            value = mantissa == 0 ? std::numeric_limits<float>::infinity()
                                  : std::numeric_limits<float>::quiet_NaN();
        else if (exponent == 0)
            value = std::ldexp(static_cast<float>(mantissa), -24);
        else
            value = std::ldexp(static_cast<float>(mantissa + 1024), exponent - 25);
        return (bits & 0x8000) != 0 ? -value : value;
    }
    explicit operator double() const { return static_cast<double>(static_cast<float>(*this)); }
};

/// Calls the function with a value of the type that the file has.
template <class Function>
auto withType(PixelType type, Function function) {
    switch (type) {
        case PixelType::Int8:
            return function(std::int8_t{});
        case PixelType::UInt8:
            return function(std::uint8_t{});
        case PixelType::Int16:
            return function(std::int16_t{});
        case PixelType::UInt16:
            return function(std::uint16_t{});
        case PixelType::Int32:
            return function(std::int32_t{});
        case PixelType::UInt32:
            return function(std::uint32_t{});
        case PixelType::Int64:
            return function(std::int64_t{});
        case PixelType::UInt64:
            return function(std::uint64_t{});
        case PixelType::Float16:
            return function(Half{});
        case PixelType::Float64:
            return function(double{});
        case PixelType::Float32:
            break;
    }
    return function(float{});
}

template <class Number>
Number numberAt(const char* bytes, bool swap) {
    std::array<char, sizeof(Number)> raw;
    std::memcpy(raw.data(), bytes, sizeof(Number));
    if (swap) std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Number>(raw);
}

/// No detector counts to the end of 32 bits; counting ones mark dead pixels so.
template <class Number>
bool isDead(Number value) {
    if constexpr (std::is_same_v<Number, std::uint32_t> || std::is_same_v<Number, std::uint64_t>)
        return value == std::numeric_limits<Number>::max();
    return false;
}

}  // namespace

std::size_t bytesOf(PixelType type) {
    return withType(type, [](auto number) { return sizeof number; });
}

void decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian, std::span<float> pixels) {
    const bool swap = bigEndian != kHostIsBig;
    withType(type, [&](auto number) {
        using Number = decltype(number);
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const Number value = numberAt<Number>(bytes.data() + i * sizeof(Number), swap);
            pixels[i] = isDead(value) ? std::numeric_limits<float>::quiet_NaN() : static_cast<float>(value);
        }
    });
}

std::vector<float> decodePixels(std::span<const char> bytes, PixelType type, bool bigEndian) {
    std::vector<float> pixels(bytes.size() / bytesOf(type));
    decodePixels(bytes, type, bigEndian, pixels);
    return pixels;
}

double decodeNumber(std::span<const char> bytes, std::size_t position, PixelType type, bool bigEndian) {
    return withType(type, [&](auto number) {
        return static_cast<double>(
            numberAt<decltype(number)>(bytes.data() + position, bigEndian != kHostIsBig));
    });
}

std::int64_t decodeInteger(std::span<const char> bytes, std::size_t position, PixelType type,
                           bool bigEndian) {
    return withType(type, [&](auto number) -> std::int64_t {
        using Number = decltype(number);
        if constexpr (std::is_integral_v<Number>) {
            constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
            number = numberAt<Number>(bytes.data() + position, bigEndian != kHostIsBig);
            return std::cmp_less(number, largest) ? static_cast<std::int64_t>(number) : largest;
        }
        return 0;
    });
}

}  // namespace vrk
