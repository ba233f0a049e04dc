/// \file
/// MRC frames and stacks.
#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <utility>

#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"
#include "pipeline/frames/SeriesHeader.h"

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

/// Modes 0 (8 bits), 1 (16 bits signed), 2 (floating point), 6 (16 bits unsigned) and 12 (floating point of
/// 16 bits), little- or big-endian. Mode 0 is signed unless the file's flags or its stated maximum say
/// otherwise. Layout: A. Cheng et al., J. Struct. Biol. 192 (2015) 146, doi:10.1016/j.jsb.2015.04.002.
///
/// Extended headers: FEI1 and FEI2 records, the older records of 128 bytes, those of 144 bytes that this
/// program writes, SerialEM's with tilts, and those of integers and real numbers whose first real number is
/// the tilt. Their tilt, voltage and exposure are used, and their pixel size where it is reciprocal (1/metre;
/// images have metres). Their tilt axis is not, except in records of this program: microscopes state it for
/// images, and patterns are rotated against those.
class MrcStack : public FrameFile {
public:
    explicit MrcStack(FrameSource source);

private:
    Frame readFrame(int frame) const override;
    void readHeader(std::span<const char> header, long long length);
    void readExtendedHeader(std::span<const char> header, std::span<const char> extended);
    void readNewRecords(std::span<const char> extended);
    void readFloatRecords(std::span<const char> extended, std::size_t recordBytes);
    bool floatRecordsFit(std::span<const char> extended, std::size_t recordBytes) const;
    void readSerialRecords(std::span<const char> extended, std::size_t recordBytes);
    void readCountedRecords(std::span<const char> extended, std::size_t integers, std::size_t reals);
    std::size_t frames() const { return m_infos.size(); }

    bool m_bigEndian = false;
    PixelType m_type = PixelType::Int16;
    long long m_dataStart = 0;
};

bool isBigEndian(std::span<const char> header) {
    const std::int64_t mode = decodeInteger(header, 12, PixelType::Int32, false);
    return header[212] == 0x11 || (header[212] != 0x44 && (mode < 0 || mode > 200));
}

std::optional<PixelType> typeOf(long long mode, bool signedBytes) {
    switch (mode) {
        case 0:
            return signedBytes ? PixelType::Int8 : PixelType::UInt8;
        case 1:
            return PixelType::Int16;
        case 2:
            return PixelType::Float32;
        case 6:
            return PixelType::UInt16;
        case 12:
            return PixelType::Float16;
        default:
            return std::nullopt;
    }
}

/// Files of older programs have no mark: then the numbers must make sense.
FrameFormat::Match recogniseMrc(const FileStart& start) {
    using Match = FrameFormat::Match;
    if (start.bytes.size() < kHeaderBytes) return Match::No;
    if (start.bytes.substr(208, 3) == "MAP") return Match::Yes;
    const std::span<const char> header(start.bytes);
    const auto integer = [&](std::size_t position) {
        return decodeInteger(header, position, PixelType::Int32, isBigEndian(header));
    };
    const bool sized = integer(0) > 0 && integer(0) <= 65536 && integer(4) > 0 && integer(4) <= 65536;
    return sized && integer(8) > 0 && typeOf(integer(12), false) ? Match::Perhaps : Match::No;
}

const FrameFormat::Registration kMrc({"MRC", recogniseMrc, FrameFormat::openAs<MrcStack>});

/// Bytes of a record of SerialEM with these flags: each stands for numbers of 2, 4 or 6 bytes.
std::size_t serialBytes(int flags) {
    constexpr std::array<std::size_t, 11> bytes = {2, 6, 4, 2, 2, 4, 2, 4, 2, 4, 2};
    std::size_t sum = 0;
    for (std::size_t bit = 0; bit < bytes.size(); ++bit)
        if ((flags >> bit & 1) != 0) sum += bytes[bit];
    return sum;
}

MrcStack::MrcStack(FrameSource source) : FrameFile(std::move(source)) {
    const std::unique_ptr<FrameBytes> bytes = this->source().open();
    std::vector<char> header(kHeaderBytes);
    if (!bytes->read(0, header)) refuse("it ends within its header");
    readHeader(header, static_cast<long long>(bytes->size()));

    // Records of a frame have less than a kilobyte.
    const std::size_t useful = std::max<std::size_t>(frames() * 1024, 1 << 20);
    std::vector<char> extended(std::min(static_cast<std::size_t>(m_dataStart) - kHeaderBytes, useful));
    if (!bytes->read(kHeaderBytes, extended)) refuse("it ends within its extended header");
    readExtendedHeader(header, extended);
}

void MrcStack::readHeader(std::span<const char> header, long long length) {
    m_bigEndian = isBigEndian(header);
    const auto integer = [&](std::size_t position) {
        return decodeInteger(header, position, PixelType::Int32, m_bigEndian);
    };
    const long long width = integer(0);
    const long long height = integer(4);
    const long long count = integer(8);
    const long long mode = integer(12);
    const long long next = integer(92);
    constexpr long long imodStamp = 1146047817;
    const bool flagged = integer(152) == imodStamp;
    const bool signedBytes =
        flagged ? (header[156] & 1) != 0 : decodeNumber(header, 80, PixelType::Float32, m_bigEndian) <= 127;
    const std::optional<PixelType> type = typeOf(mode, signedBytes);
    if (!type) refuse("MRC mode " + std::to_string(mode) + " is not supported; modes 0, 1, 2, 6 and 12 are");
    m_type = *type;
    checkSize(width, height);
    if (count < 1 || next < 0)
        refuse("its MRC header gives " + std::to_string(count) + " frames after " + std::to_string(next) +
               " bytes of extended header; the file is damaged");

    m_dataStart = static_cast<long long>(kHeaderBytes) + next;
    const long long frameBytes = width * height * static_cast<long long>(bytesOf(m_type));
    setFrames(count, std::max(0LL, length - m_dataStart) / frameBytes, width, height);
    const double edge = decodeNumber(header, 40, PixelType::Float32, m_bigEndian);
    // Files without records may carry the pixel size in the frame's edge; images have some Angstrom there.
    if (edge / static_cast<double>(width) > 1e5 && std::isfinite(edge))
        for (FrameInfo& info : m_infos)
            info.pixelSize = edge / static_cast<double>(width);
    constexpr std::size_t labels = 224;
    if (const auto motion = statedMotion(std::string_view(header.data() + labels, kHeaderBytes - labels)))
        for (FrameInfo& info : m_infos) {
            info.rotation = motion->rotation;
            info.precession = motion->precession;
        }
}

void MrcStack::readExtendedHeader(std::span<const char> header, std::span<const char> extended) {
    const std::string_view kind(header.data() + 104, 4);
    if (kind == "FEI1" || kind == "FEI2") return readNewRecords(extended);

    const auto integers =
        static_cast<std::size_t>(decodeInteger(header, 128, PixelType::UInt16, m_bigEndian));
    const auto reals = static_cast<int>(decodeInteger(header, 130, PixelType::UInt16, m_bigEndian));
    // SerialEM keeps the bytes of a record and its flags where others count integers and real numbers.
    if (kind == "SERI" || (reals > 0 && serialBytes(reals) == integers)) {
        if ((reals & 1) != 0 && integers >= 2 && integers * frames() <= extended.size())
            readSerialRecords(extended, integers);
        return;
    }
    const bool own = floatRecordsFit(extended, kOwnRecordBytes);
    const bool old = floatRecordsFit(extended, kOldRecordBytes);
    const bool exactlyOwn = extended.size() == kOwnRecordBytes * frames();
    if (own && (exactlyOwn || !old))
        readFloatRecords(extended, kOwnRecordBytes);
    else if (old)
        readFloatRecords(extended, kOldRecordBytes);
    else
        readCountedRecords(extended, integers, static_cast<std::size_t>(reals));
}

/// FEI1 and FEI2: doubles at fixed places of records that state their own size.
void MrcStack::readNewRecords(std::span<const char> extended) {
    constexpr std::size_t shortest = 172;
    std::size_t start = 0;
    for (FrameInfo& info : m_infos) {
        const std::int64_t size = start + shortest <= extended.size()
                                      ? decodeInteger(extended, start, PixelType::Int32, m_bigEndian)
                                      : 0;
        if (std::cmp_less(size, shortest) || std::cmp_greater(size, extended.size() - start))
            refuse("its extended header is damaged: the record of frame " +
                   std::to_string(&info - m_infos.data() + 1) + " does not fit");
        const auto value = [&](std::size_t position) {
            return decodeNumber(extended, start + position, PixelType::Float64, m_bigEndian);
        };
        info.kilovolts = kilovoltsOf(value(84));
        if (plausibleTilt(value(100))) info.tilt = value(100);
        if (const auto pixel = reciprocalPixel(value(156))) info.pixelSize = pixel;
        constexpr std::size_t throughTiltPerImage = 844;
        if (std::cmp_greater_equal(size, throughTiltPerImage) && std::abs(value(836)) > 0 &&
            std::abs(value(836)) < 10)
            info.rotation = std::abs(value(836));
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

/// Records of so many integers of 4 bytes and then so many real numbers, the first of them the tilt.
void MrcStack::readCountedRecords(std::span<const char> extended, std::size_t integers, std::size_t reals) {
    const std::size_t recordBytes = 4 * (integers + reals);
    if (reals == 0 || recordBytes * frames() > extended.size()) return;
    std::vector<double> tilts;
    for (std::size_t i = 0; i < frames(); ++i)
        tilts.push_back(
            decodeNumber(extended, i * recordBytes + 4 * integers, PixelType::Float32, m_bigEndian));
    if (!std::all_of(tilts.begin(), tilts.end(), plausibleTilt)) return;
    if (std::all_of(tilts.begin(), tilts.end(), [](double tilt) { return tilt == 0; })) return;
    for (std::size_t i = 0; i < frames(); ++i)
        m_infos[i].tilt = tilts[i];
}

Frame MrcStack::readFrame(int frame) const {
    const FrameInfo& info = m_infos.at(static_cast<std::size_t>(frame));
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(m_type));
    const auto start =
        static_cast<std::uint64_t>(m_dataStart) + static_cast<std::uint64_t>(frame) * bytes.size();
    if (!source().open()->read(start, bytes))
        refuse("frame " + std::to_string(frame + 1) + " cannot be read");
    return {info.width, info.height, decodePixels(bytes, m_type, m_bigEndian)};
}

}  // namespace
}  // namespace vrk
