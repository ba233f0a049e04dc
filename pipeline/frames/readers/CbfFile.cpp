/// \file
/// CBF frames as counting detectors write them.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

constexpr std::string_view kBinaryMark = "\x0c\x1a\x04\xd5";
constexpr float kDead = std::numeric_limits<float>::quiet_NaN();

/// A text header, a MIME header of the binary section, and the pixels of one frame, packed by byte offsets or
/// not at all. Pixels below 0 stand for gaps between the detector's modules (-1) and dead pixels (-2).
///
/// The tilt is the middle of the rotation, Start_angle + Angle_increment / 2 (or Phi, Omega, and their
/// increments); the pixel size is Pixel_size / (Detector_distance Wavelength). These stand in lines that
/// begin with #.
///
/// Layout: A. P. Hammersley, H. J. Bernstein and J. D. Westbrook, International Tables for Crystallography G
/// (2005), chapter 2.3, doi:10.1107/97809553602060000729.
class CbfFile : public FrameFile {
public:
    explicit CbfFile(FrameSource source);

private:
    Frame readFrame(int frame) const override;
    void readBinaryHeader(const std::string& text);
    void readGeometry(const std::string& text);
    std::optional<std::string> field(const std::string& text, const std::string& name) const;
    long long requiredInteger(const std::string& text, const std::string& name) const;

    bool m_packed = false;
    PixelType m_type = PixelType::Int32;  ///< when not packed
    bool m_bigEndian = false;
    std::uint64_t m_start = 0;
    std::uint64_t m_bytes = 0;
};

FrameFormat::Match recogniseCbf(const FileStart& start) {
    const bool marked =
        start.bytes.starts_with("###CBF") || start.bytes.find("X-Binary-Size") != std::string_view::npos;
    return marked ? FrameFormat::Match::Yes : FrameFormat::Match::No;
}

const FrameFormat::Registration kCbf({"CBF", recogniseCbf, FrameFormat::openAs<CbfFile>});

/// Numbers behind a keyword in the lines that begin with #, with everything between them ("m x", "=") left
/// out.
std::vector<double> valuesOf(const std::string& text, const std::string& keyword) {
    std::vector<double> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c == ',' || c == '(' || c == ':'; }, ' ');
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "#")
            words >> word;
        else if (word.starts_with("#"))
            word.erase(0, 1);
        else
            continue;
        if (word != keyword) continue;
        double value = 0;
        while (words >> word)
            if (parseNumber(word, value)) values.push_back(value);
        break;
    }
    return values;
}

std::optional<double> valueOf(const std::string& text, std::initializer_list<const char*> keywords) {
    for (const char* keyword : keywords)
        if (const std::vector<double> values = valuesOf(text, keyword); !values.empty())
            return values.front();
    return std::nullopt;
}

/// Each pixel is stored as its difference from the one before, in one byte; the smallest number of two bytes
/// or four announces a difference of twice as many. False when the bytes end before the pixels.
bool unpackByteOffsets(std::span<const char> bytes, std::span<float> pixels) {
    std::int64_t value = 0;
    std::size_t position = 0;
    std::int64_t difference = 0;
    const auto next = [&](PixelType type) {
        const std::size_t count = bytesOf(type);
        if (bytes.size() - position < count) return false;
        difference = decodeInteger(bytes, position, type, false);
        position += count;
        return true;
    };
    for (float& pixel : pixels) {
        if (!next(PixelType::Int8)) return false;
        if (difference == std::numeric_limits<std::int8_t>::min()) {
            if (!next(PixelType::Int16)) return false;
            if (difference == std::numeric_limits<std::int16_t>::min()) {
                if (!next(PixelType::Int32)) return false;
                // Eight bytes would lead out of every detector's counts.
                if (difference == std::numeric_limits<std::int32_t>::min()) return false;
            }
        }
        value += difference;
        pixel = static_cast<float>(value);
    }
    return true;
}

CbfFile::CbfFile(FrameSource source) : FrameFile(std::move(source)) {
    constexpr std::uint64_t longest = 1 << 20;
    const std::unique_ptr<FrameBytes> bytes = this->source().open();
    std::string text(std::min(longest, bytes->size()), '\0');
    if (!bytes->read(0, text)) refuse("it cannot be read");
    const std::size_t mark = text.find(kBinaryMark);
    if (mark == std::string::npos) refuse("its header does not end; the CBF is damaged or truncated");
    text.resize(mark);
    m_start = mark + kBinaryMark.size();
    readBinaryHeader(text);
    if (m_start + m_bytes > bytes->size())
        refuse("it is truncated: its pixels take " + std::to_string(m_bytes) + " bytes, " +
               std::to_string(bytes->size() - m_start) + " are there");
    readGeometry(text);
}

/// The value of a line NAME: VALUE of the MIME header.
std::optional<std::string> CbfFile::field(const std::string& text, const std::string& name) const {
    const std::size_t found = text.rfind(name + ":");
    if (found == std::string::npos) return std::nullopt;
    const std::size_t first = found + name.size() + 1;
    std::string value = text.substr(first, text.find_first_of("\r\n", first) - first);
    std::erase_if(value, [](char c) { return c == '"' || c == ' ' || c == '\t'; });
    return value;
}

long long CbfFile::requiredInteger(const std::string& text, const std::string& name) const {
    const std::optional<std::string> value = field(text, name);
    if (!value) refuse("its header has no " + name);
    long long number = -1;
    std::from_chars(value->data(), value->data() + value->size(), number);
    if (number < 0) refuse("its header has " + name + ": " + *value + ", which cannot be");
    return number;
}

void CbfFile::readBinaryHeader(const std::string& text) {
    const long long width = requiredInteger(text, "X-Binary-Size-Fastest-Dimension");
    const long long height = requiredInteger(text, "X-Binary-Size-Second-Dimension");
    m_bytes = static_cast<std::uint64_t>(requiredInteger(text, "X-Binary-Size"));
    setFrames(1, 1, width, height);

    const std::size_t conversions = text.rfind("conversions=");
    m_packed =
        conversions != std::string::npos && text.find("x-CBF_BYTE_OFFSET", conversions) != std::string::npos;
    if (!m_packed && conversions != std::string::npos &&
        text.find("x-CBF_NONE", conversions) == std::string::npos)
        refuse("its pixels are packed in a way that is not read; byte offsets (x-CBF_BYTE_OFFSET) are");
    const std::string type = field(text, "X-Binary-Element-Type").value_or("signed32-bitinteger");
    if (type == "signed32-bitinteger")
        m_type = PixelType::Int32;
    else if (type == "unsigned32-bitinteger")
        m_type = PixelType::UInt32;
    else if (type == "signed16-bitinteger")
        m_type = PixelType::Int16;
    else if (type == "unsigned16-bitinteger")
        m_type = PixelType::UInt16;
    else if (type == "unsigned8-bitinteger")
        m_type = PixelType::UInt8;
    else if (type == "signed32-bitrealIEEE")
        m_type = PixelType::Float32;
    else
        refuse("its pixels are of the type " + type + ", which is not read");
    m_bigEndian = field(text, "X-Binary-Element-Byte-Order") == "BIG_ENDIAN";

    const auto pixels = static_cast<std::uint64_t>(width * height);
    const std::uint64_t least = m_packed ? pixels : pixels * bytesOf(m_type);
    if (m_bytes < least)
        refuse("its " + std::to_string(width) + " x " + std::to_string(height) + " pixels cannot lie in " +
               std::to_string(m_bytes) + " bytes; the CBF is damaged");
}

void CbfFile::readGeometry(const std::string& text) {
    FrameInfo& info = m_infos[0];
    const std::optional<double> start = valueOf(text, {"Start_angle", "Phi", "Omega"});
    const std::optional<double> step = valueOf(text, {"Angle_increment", "Phi_increment", "Omega_increment"});
    if (start && std::abs(*start) <= 360) info.tilt = *start + step.value_or(0) / 2;
    if (step && *step != 0) info.rotation = std::abs(*step);
    info.exposure = valueOf(text, {"Exposure_time"});
    const double pixel = valueOf(text, {"Pixel_size"}).value_or(0);
    const double distance = valueOf(text, {"Detector_distance"}).value_or(0);
    const double wavelength = valueOf(text, {"Wavelength"}).value_or(0);
    if (wavelength > 0) info.kilovolts = EwaldCurvature::kiloVolts(wavelength);
    if (pixel > 0 && distance > 0 && wavelength > 0) info.pixelSize = pixel / (distance * wavelength) * 1e10;
}

Frame CbfFile::readFrame(int) const {
    const FrameInfo& info = m_infos[0];
    std::vector<char> bytes(m_bytes);
    if (!source().open()->read(m_start, bytes)) refuse("it ends before its pixels do");
    const std::size_t count = static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height);
    Frame frame{info.width, info.height, {}};
    if (m_packed) {
        frame.pixels.resize(count);
        if (!unpackByteOffsets(bytes, frame.pixels)) refuse("its packed pixels are damaged");
    } else {
        frame.pixels = decodePixels(std::span(bytes).first(count * bytesOf(m_type)), m_type, m_bigEndian);
    }
    if (m_type != PixelType::Float32)
        for (float& value : frame.pixels)
            if (value < 0) value = kDead;
    return frame;
}

}  // namespace
}  // namespace vrk
