#include "pipeline/frames/SmvFile.h"

#include <cmath>
#include <fstream>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/NumberList.h"

namespace vrk {
namespace {

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

bool SmvFile::recognises(const std::string& firstBytes) {
    return firstBytes.starts_with("{") && firstBytes.find("HEADER_BYTES") != std::string::npos;
}

SmvFile::SmvFile(const std::filesystem::path& path) : FrameFile(path) {
    m_infos.resize(1);
    const Keys keys = readHeader();
    readLayout(keys);
    readGeometry(keys);
}

SmvFile::Keys SmvFile::readHeader() {
    constexpr std::size_t longest = 1 << 16;
    std::ifstream file(m_path, std::ios::binary);
    std::string text(longest, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
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
    const auto length = static_cast<long long>(std::filesystem::file_size(m_path));
    if (m_headerBytes < 1 || m_headerBytes > length) refuse("HEADER_BYTES does not fit the file");
    if (length - m_headerBytes < needed)
        refuse("it is truncated: " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels need " + std::to_string(needed) + " bytes after the header, " +
               std::to_string(length - m_headerBytes) + " are there");
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

Frame SmvFile::read(int) const {
    const FrameInfo& info = m_infos[0];
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(m_type));
    std::ifstream file(m_path, std::ios::binary);
    file.seekg(m_headerBytes);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!file) refuse("it ends before its pixels do");
    return {info.width, info.height, decodePixels(bytes, m_type, m_bigEndian)};
}

}  // namespace vrk
