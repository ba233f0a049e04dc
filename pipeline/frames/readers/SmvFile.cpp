/// \file
/// SMV frames (.img).
#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// A text header between braces, HEADER_BYTES long, of lines KEY=VALUE; and the pixels of one frame.
///
/// The tilt is the middle of the rotation, OSC_START + OSC_RANGE / 2, or PHI where there is no OSC_START. The
/// pixel size is PIXEL_SIZE / (DISTANCE WAVELENGTH), millimetres and Angstrom. SIZE1 is the width. TYPE may
/// be unsigned_char, unsigned_short, short, unsigned_long, long or float; BYTE_ORDER is little_endian unless
/// stated. BEAM_CENTER_X and _Y are not used: the centre of every pattern is found in the frames themselves.
class SmvFile : public FrameFile {
public:
    explicit SmvFile(FrameSource source);

private:
    using Keys = std::map<std::string, std::string>;
    Frame readFrame(int frame) const override;
    Keys readHeader();
    void readLayout(const Keys& keys);
    void readGeometry(const Keys& keys);
    std::optional<double> number(const Keys& keys, const std::string& key) const;
    long long requiredInteger(const Keys& keys, const std::string& key) const;

    long long m_headerBytes = 0;
    long long m_length = 0;  ///< of the file
    PixelType m_type = PixelType::UInt16;
    bool m_bigEndian = false;
};

FrameFormat::Match recogniseSmv(const FileStart& start) {
    return start.bytes.starts_with("{") && start.bytes.find("HEADER_BYTES") != std::string_view::npos
               ? FrameFormat::Match::Yes
               : FrameFormat::Match::No;
}

const FrameFormat::Registration kSmv({"SMV", recogniseSmv, FrameFormat::openAs<SmvFile>});

SmvFile::SmvFile(FrameSource source) : FrameFile(std::move(source)) {
    m_infos.resize(1);
    const Keys keys = readHeader();
    readLayout(keys);
    readGeometry(keys);
}

SmvFile::Keys SmvFile::readHeader() {
    constexpr std::uint64_t longest = 1 << 16;
    const std::unique_ptr<FrameBytes> bytes = source().open();
    m_length = static_cast<long long>(bytes->size());
    std::string text(std::min(longest, bytes->size()), '\0');
    if (!bytes->read(0, text)) refuse("it cannot be read");
    const std::size_t end = text.find('}');
    if (end == std::string::npos) refuse("its header does not end; the file is damaged");

    Keys keys;
    std::istringstream entries(text.substr(1, end - 1));
    for (std::string entry; std::getline(entries, entry, ';');) {
        const std::size_t equals = entry.find('=');
        if (equals != std::string::npos)
            keys[trimmed(entry.substr(0, equals))] = trimmed(entry.substr(equals + 1));
    }
    return keys;
}

std::optional<double> SmvFile::number(const Keys& keys, const std::string& key) const {
    const auto entry = keys.find(key);
    if (entry == keys.end()) return std::nullopt;
    double value = 0;
    if (!parseNumber(entry->second, value))
        refuse("its header has " + key + "=" + entry->second + ", not a number");
    return value;
}

long long SmvFile::requiredInteger(const Keys& keys, const std::string& key) const {
    const std::optional<double> value = number(keys, key);
    if (!value) refuse("its header has no " + key);
    if (*value != std::floor(*value) || std::abs(*value) > 1e9)
        refuse("its header has " + key + "=" + keys.at(key) + ", which cannot be");
    return static_cast<long long>(*value);
}

void SmvFile::readLayout(const Keys& keys) {
    static const std::map<std::string, PixelType> types = {{"unsigned_char", PixelType::UInt8},
                                                           {"unsigned_short", PixelType::UInt16},
                                                           {"short", PixelType::Int16},
                                                           {"signed_short", PixelType::Int16},
                                                           {"unsigned_long", PixelType::UInt32},
                                                           {"unsigned_int", PixelType::UInt32},
                                                           {"long", PixelType::Int32},
                                                           {"signed_long", PixelType::Int32},
                                                           {"int", PixelType::Int32},
                                                           {"float", PixelType::Float32}};
    m_headerBytes = requiredInteger(keys, "HEADER_BYTES");
    const long long width = requiredInteger(keys, "SIZE1");
    const long long height = requiredInteger(keys, "SIZE2");
    checkSize(width, height);
    const std::string typeName = keys.contains("TYPE") ? keys.at("TYPE") : "unsigned_short";
    const auto type = types.find(typeName);
    if (type == types.end()) refuse("pixels of TYPE=" + typeName + " are not known");
    m_type = type->second;
    const std::string order = keys.contains("BYTE_ORDER") ? keys.at("BYTE_ORDER") : "little_endian";
    if (order != "little_endian" && order != "big_endian") refuse("BYTE_ORDER=" + order + " is not known");
    m_bigEndian = order == "big_endian";

    const long long needed = width * height * static_cast<long long>(bytesOf(m_type));
    if (m_headerBytes < 1 || m_headerBytes > m_length) refuse("HEADER_BYTES does not fit the file");
    if (m_length - m_headerBytes < needed)
        refuse("it is truncated: " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels need " + std::to_string(needed) + " bytes after the header, " +
               std::to_string(m_length - m_headerBytes) + " are there");
    m_infos[0].width = static_cast<int>(width);
    m_infos[0].height = static_cast<int>(height);
}

void SmvFile::readGeometry(const Keys& keys) {
    FrameInfo& info = m_infos[0];
    const std::optional<double> start = number(keys, "OSC_START");
    info.rotation = number(keys, "OSC_RANGE");
    if (start)
        info.tilt = *start + info.rotation.value_or(0) / 2;
    else
        info.tilt = number(keys, "PHI");
    info.exposure = number(keys, "TIME");
    const double pixel = number(keys, "PIXEL_SIZE").value_or(0);
    const double distance = number(keys, "DISTANCE").value_or(0);
    const double wavelength = number(keys, "WAVELENGTH").value_or(0);
    if (pixel > 0 && distance > 0 && wavelength > 0) info.pixelSize = pixel / (distance * wavelength) * 1e10;
    if (wavelength > 0) info.kilovolts = EwaldCurvature::kiloVolts(wavelength);
}

Frame SmvFile::readFrame(int) const {
    const FrameInfo& info = m_infos[0];
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(m_type));
    if (!source().open()->read(static_cast<std::uint64_t>(m_headerBytes), bytes))
        refuse("it ends before its pixels do");
    return {info.width, info.height, decodePixels(bytes, m_type, m_bigEndian)};
}

}  // namespace
}  // namespace vrk
