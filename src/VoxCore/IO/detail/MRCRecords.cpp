#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <type_traits>

#include "VoxCore/IO/detail/MRCRecords.h"

namespace VRK::detail {
namespace {

template <std::size_t Size>
using Bits = std::conditional_t<Size == 2, std::uint16_t, std::uint32_t>;

template <class T>
T load(const char* bytes) {
    Bits<sizeof(T)> bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits = static_cast<Bits<sizeof(T)>>(bits | unsigned{static_cast<unsigned char>(bytes[i])} << 8 * i);
    return std::bit_cast<T>(bits);
}

template <class T>
void store(T value, char* bytes) {
    const auto bits = std::bit_cast<Bits<sizeof(T)>>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<char>(bits >> 8 * i & 0xff);
}

class Decoder {
public:
    explicit Decoder(const char* bytes) : m_bytes(bytes) {}

    template <class T>
    void operator()(T& value) {
        value = load<T>(m_bytes);
        m_bytes += sizeof(T);
    }
    template <std::size_t N>
    void operator()(std::array<char, N>& text) {
        std::memcpy(text.data(), m_bytes, N);
        m_bytes += N;
    }
    template <class T, std::size_t N>
    void operator()(std::array<T, N>& values) {
        for (T& value : values)
            (*this)(value);
    }

private:
    const char* m_bytes;
};

class Encoder {
public:
    explicit Encoder(char* bytes) : m_bytes(bytes) {}

    template <class T>
    void operator()(const T& value) {
        store(value, m_bytes);
        m_bytes += sizeof(T);
    }
    template <std::size_t N>
    void operator()(const std::array<char, N>& text) {
        std::memcpy(m_bytes, text.data(), N);
        m_bytes += N;
    }
    template <class T, std::size_t N>
    void operator()(const std::array<T, N>& values) {
        for (const T& value : values)
            (*this)(value);
    }

private:
    char* m_bytes;
};

/// The main header's fields in the order of the file; reading and writing both walk this list.
template <class Codec, class Header>
void walkMainHeader(Codec codec, Header& h) {
    const auto all = [&codec](auto&... fields) { (codec(fields), ...); };
    all(h.nx, h.ny, h.nz, h.mode, h.nxstart, h.nystart, h.nzstart, h.mx, h.my, h.mz);          // 0
    all(h.xlen, h.ylen, h.zlen, h.alpha, h.beta, h.gamma, h.mapc, h.mapr, h.maps);             // 40
    all(h.amin, h.amax, h.amean, h.ispg, h.nsymbt, h.next);                                    // 76
    all(h.extraShort, h.extraWords, h.unused2, h.idtype, h.lens, h.nd1, h.vd1, h.vd2);         // 96
    all(h.tiltangles, h.xorgin, h.yorgin, h.zorgin, h.cmap, h.stamp, h.rms, h.nlabl, h.labl);  // 172
}

}  // namespace

void decodeMainHeader(std::span<const char, kMainHeaderBytes> bytes, mrcH& header) {
    walkMainHeader(Decoder(bytes.data()), header);
}

void encodeMainHeader(const mrcH& header, std::span<char, kMainHeaderBytes> bytes) {
    walkMainHeader(Encoder(bytes.data()), header);
}

void decodeSliceRecord(std::span<const char, kSliceRecordBytes> bytes, mrcH& header, int slice) {
    for (std::size_t k = 0; k < mrcH::kSliceValueCount; ++k)
        header.setValue(static_cast<SliceValue>(k), slice, decodeFloat(bytes.data() + k * sizeof(float)));
}

void encodeSliceRecord(const mrcH& header, int slice, std::span<char, kSliceRecordBytes> bytes) {
    std::fill(bytes.begin(), bytes.end(), '\0');
    for (std::size_t k = 0; k < mrcH::kSliceValueCount; ++k)
        store(header.value(static_cast<SliceValue>(k), slice), bytes.data() + k * sizeof(float));
}

float decodeFloat(const char* bytes) {
    return load<float>(bytes);
}

void swapLittleEndian(std::span<short> values) {
    if constexpr (std::endian::native == std::endian::big) {
        for (short& value : values) {
            const auto bits = static_cast<std::uint16_t>(value);
            value = static_cast<short>(static_cast<std::uint16_t>(bits << 8 | bits >> 8));
        }
    }
}

}  // namespace VRK::detail
