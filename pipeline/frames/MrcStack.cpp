#include "pipeline/frames/MrcStack.h"

#include <cmath>
#include <fstream>
#include <string_view>

namespace vrk {
namespace {

constexpr std::size_t kHeaderBytes = 1024;
constexpr std::size_t kOldRecordBytes = 128;
constexpr std::size_t kOwnRecordBytes = 144;

std::optional<double> positive(double value) {
    return std::isfinite(value) && value > 0 ? std::optional(value) : std::nullopt;
}

/// Pixel sizes of patterns are millions of 1/metre, those of images small fractions of a metre.
std::optional<double> reciprocalPixel(double value) {
    return std::isfinite(value) && value > 1 ? std::optional(value) : std::nullopt;
}

/// Headers state volts or kilovolts.
std::optional<double> kilovoltsOf(double value) {
    if (!std::isfinite(value) || value < 1) return std::nullopt;
    return value >= 5000 ? value / 1000 : value;
}

bool plausibleTilt(double degrees) {
    return std::isfinite(degrees) && std::abs(degrees) <= 360;
}

}  // namespace

MrcStack::MrcStack(const std::filesystem::path& path) : FrameFile(path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> header(kHeaderBytes);
    file.read(header.data(), static_cast<std::streamsize>(header.size()));
    if (!file) refuse("it is neither an SMV nor a TIFF nor an MRC file");
    readHeader(header);

    const auto extendedBytes = static_cast<std::size_t>(m_dataStart) - kHeaderBytes;
    std::vector<char> extended(extendedBytes);
    file.read(extended.data(), static_cast<std::streamsize>(extended.size()));
    if (!file) refuse("it ends within its extended header");
    readExtendedHeader(header, extended);
}

void MrcStack::readHeader(std::span<const char> header) {
    const auto integer = [&](std::size_t position) {
        return static_cast<long long>(decodeNumber(header, position, PixelType::Int32, m_bigEndian));
    };
    const auto known = [](long long mode) { return mode == 0 || mode == 1 || mode == 2 || mode == 6; };
    m_bigEndian = header[212] == 0x11 || (header[212] != 0x44 && (integer(12) < 0 || integer(12) > 200));
    const bool marked = std::string_view(header.data() + 208, 3) == "MAP";
    const long long width = integer(0);
    const long long height = integer(4);
    const long long count = integer(8);
    const long long mode = integer(12);
    const long long next = integer(92);
    if (!marked && !known(mode)) refuse("it is neither an SMV nor a TIFF nor an MRC file");
    if (!known(mode))
        refuse("MRC mode " + std::to_string(mode) + " is not supported; modes 0, 1, 2 and 6 are");
    checkSize(width, height);
    if (count < 1 || next < 0)
        refuse("its MRC header gives " + std::to_string(count) + " frames after " + std::to_string(next) +
               " bytes of extended header; the file is damaged");

    const bool flagged = decodeNumber(header, 152, PixelType::Int32, m_bigEndian) == 1146047817;
    const bool signedBytes =
        flagged ? (header[156] & 1) != 0 : decodeNumber(header, 80, PixelType::Float32, m_bigEndian) <= 127;
    m_type = mode == 0   ? (signedBytes ? PixelType::Int8 : PixelType::UInt8)
             : mode == 1 ? PixelType::Int16
             : mode == 2 ? PixelType::Float32
                         : PixelType::UInt16;
    m_dataStart = static_cast<long long>(kHeaderBytes) + next;
    const auto length = static_cast<long long>(std::filesystem::file_size(m_path));
    const long long frameBytes = width * height * static_cast<long long>(bytesOf(m_type));
    const long long complete = std::max(0LL, length - m_dataStart) / frameBytes;
    if (complete < count)
        refuse("it is truncated: the header announces " + std::to_string(count) + " frames of " +
               std::to_string(width) + " x " + std::to_string(height) + " pixels, " +
               std::to_string(complete) + " are there");
    FrameInfo info;
    info.width = static_cast<int>(width);
    info.height = static_cast<int>(height);
    const double edge = decodeNumber(header, 40, PixelType::Float32, m_bigEndian);
    // Files without records may carry the pixel size in the frame's edge; images have some Angstrom there.
    if (edge / static_cast<double>(width) > 1e5 && std::isfinite(edge))
        info.pixelSize = edge / static_cast<double>(width);
    m_infos.assign(static_cast<std::size_t>(count), info);
}

void MrcStack::readExtendedHeader(std::span<const char> header, std::span<const char> extended) {
    const std::string_view kind(header.data() + 104, 4);
    if (kind == "FEI1" || kind == "FEI2") return readNewRecords(extended);

    const auto recordBytes =
        static_cast<std::size_t>(decodeNumber(header, 128, PixelType::UInt16, m_bigEndian));
    const int flags = static_cast<int>(decodeNumber(header, 130, PixelType::Int16, m_bigEndian));
    const bool serial = kind == "SERI" || (flags > 0 && flags != 32 && recordBytes > 0);
    if (serial) {
        if ((flags & 1) != 0 && recordBytes >= 2 && recordBytes * frames() <= extended.size())
            readSerialRecords(extended, recordBytes);
        return;
    }
    const bool own = floatRecordsFit(extended, kOwnRecordBytes);
    const bool old = floatRecordsFit(extended, kOldRecordBytes);
    const bool exactlyOwn = extended.size() == kOwnRecordBytes * frames();
    if (own && (exactlyOwn || !old))
        readFloatRecords(extended, kOwnRecordBytes);
    else if (old)
        readFloatRecords(extended, kOldRecordBytes);
}

/// FEI1 and FEI2: doubles at fixed places of records that state their own size.
void MrcStack::readNewRecords(std::span<const char> extended) {
    constexpr std::size_t shortest = 172;
    std::size_t start = 0;
    for (FrameInfo& info : m_infos) {
        const double size = start + shortest <= extended.size()
                                ? decodeNumber(extended, start, PixelType::Int32, m_bigEndian)
                                : 0;
        if (size < shortest || size > static_cast<double>(extended.size() - start))
            refuse("its extended header is damaged: the record of frame " +
                   std::to_string(&info - m_infos.data() + 1) + " does not fit");
        const auto value = [&](std::size_t position) {
            return decodeDouble(extended, start + position, m_bigEndian);
        };
        info.kilovolts = kilovoltsOf(value(84));
        if (plausibleTilt(value(100))) info.tilt = value(100);
        if (const auto pixel = reciprocalPixel(value(156))) info.pixelSize = pixel;
        start += static_cast<std::size_t>(size);
    }
}

/// Whether reading in steps of this size gives tilts and one pixel size.
bool MrcStack::floatRecordsFit(std::span<const char> extended, std::size_t recordBytes) const {
    if (extended.size() < recordBytes * frames()) return false;
    const auto value = [&](std::size_t frame, std::size_t place) {
        return decodeNumber(extended, frame * recordBytes + 4 * place, PixelType::Float32, m_bigEndian);
    };
    bool anything = false;
    for (std::size_t i = 0; i < frames(); ++i) {
        const double pixel = value(i, 11);
        if (!plausibleTilt(value(i, 0)) || !std::isfinite(pixel) || pixel < 0) return false;
        if (std::abs(pixel - value(0, 11)) > 1e-3 * pixel) return false;
        anything = anything || value(i, 0) != 0 || pixel != 0;
    }
    return anything;
}

void MrcStack::readFloatRecords(std::span<const char> extended, std::size_t recordBytes) {
    const bool own = recordBytes == kOwnRecordBytes;
    for (std::size_t i = 0; i < frames(); ++i) {
        const auto value = [&](std::size_t place) {
            return decodeNumber(extended, i * recordBytes + 4 * place, PixelType::Float32, m_bigEndian);
        };
        FrameInfo& info = m_infos[i];
        info.tilt = value(0);
        info.exposure = positive(value(own ? 6 : 8));
        if (const auto pixel = reciprocalPixel(value(11))) info.pixelSize = pixel;
        info.kilovolts = kilovoltsOf(value(own ? 15 : 13));
        if (own && std::isfinite(value(8)) && value(8) != 0) info.axis = value(8);
    }
}

/// Short records whose first number is the tilt in hundredths of a degree.
void MrcStack::readSerialRecords(std::span<const char> extended, std::size_t recordBytes) {
    for (std::size_t i = 0; i < frames(); ++i)
        m_infos[i].tilt = decodeNumber(extended, i * recordBytes, PixelType::Int16, m_bigEndian) / 100;
}

Frame MrcStack::read(int frame) const {
    const FrameInfo& info = m_infos.at(static_cast<std::size_t>(frame));
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(m_type));
    std::ifstream file(m_path, std::ios::binary);
    file.seekg(m_dataStart + static_cast<long long>(frame) * static_cast<long long>(bytes.size()));
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) refuse("frame " + std::to_string(frame + 1) + " cannot be read");
    return {info.width, info.height, decodePixels(bytes, m_type, m_bigEndian)};
}

}  // namespace vrk
