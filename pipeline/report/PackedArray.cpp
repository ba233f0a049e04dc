#include "pipeline/report/PackedArray.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

std::string base64(std::span<const unsigned char> bytes) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    auto next = text.begin();
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(bytes.size() - i, 3);
        std::uint32_t three = 0;
        for (std::size_t j = 0; j < 3; ++j)
            three = three << 8 | (j < count ? bytes[i + j] : 0U);
        for (std::size_t j = 0; j <= count; ++j)
            *(next + static_cast<std::ptrdiff_t>(j)) = kDigits[three >> (18 - 6 * j) & 63U];
        next += 4;
    }
    return text;
}

template <typename Value>
constexpr char kKind = std::is_floating_point_v<Value> ? 'f'
                       : std::is_signed_v<Value>       ? 'i'
                                                       : 'u';

}  // namespace

std::string packedBytes(std::span<const unsigned char> bytes, PackedContent content) {
    z_stream stream{};
    const bool isPicture = content == PackedContent::Picture;
    if (deflateInit2(&stream, isPicture ? 1 : 6, Z_DEFLATED, 15, 9, isPicture ? Z_RLE : Z_DEFAULT_STRATEGY) !=
        Z_OK)
        throw Failure("no memory is left to compress the report");
    std::vector<unsigned char> packed(deflateBound(&stream, static_cast<uLong>(bytes.size())));
    // The interface of the library does not know constants.
    stream.next_in = const_cast<unsigned char*>(bytes.data());
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    const int state = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (state != Z_STREAM_END) throw Failure("a part of the report could not be compressed");
    return base64(packed);
}

template <typename Value>
std::string packedColumn(std::span<const Value> values) {
    std::vector<unsigned char> bytes(values.size() * sizeof(Value));
    for (std::size_t i = 0; i < values.size(); ++i) {
        std::array<unsigned char, sizeof(Value)> one;
        std::memcpy(one.data(), &values[i], sizeof(Value));
        for (std::size_t byte = 0; byte < sizeof(Value); ++byte)
            bytes[byte * values.size() + i] = one[byte];
    }
    return std::string("{\"type\":\"") + kKind<Value> + std::to_string(sizeof(Value)) +
           "\",\"count\":" + std::to_string(values.size()) + ",\"data\":\"" +
           packedBytes(bytes, PackedContent::Columns) + "\"}";
}

template std::string packedColumn(std::span<const std::uint8_t>);
template std::string packedColumn(std::span<const std::int16_t>);
template std::string packedColumn(std::span<const std::uint16_t>);
template std::string packedColumn(std::span<const std::uint32_t>);
template std::string packedColumn(std::span<const float>);

}  // namespace vrk
