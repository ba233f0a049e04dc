/// \file
/// Reads the data of a report page back, in the plainest way.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// Bytes of a compressed text in base64.
inline std::vector<unsigned char> inflated(const std::string& text) {
    static const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<unsigned char> packed;
    std::uint32_t bits = 0;
    int count = 0;
    for (const char sign : text) {
        if (sign == '=') break;
        bits = bits << 6 | static_cast<std::uint32_t>(digits.find(sign));
        if ((count += 6) < 8) continue;
        count -= 8;
        packed.push_back(static_cast<unsigned char>(bits >> count & 255U));
    }
    std::vector<unsigned char> bytes(std::size_t{1} << 24);
    uLongf size = bytes.size();
    if (uncompress(bytes.data(), &size, packed.data(), packed.size()) != Z_OK) size = 0;
    bytes.resize(size);
    return bytes;
}

/// The values of a packed column.
inline std::vector<double> unpacked(const nlohmann::json& column) {
    const std::string type = column["type"];
    const auto count = column["count"].get<std::size_t>();
    const std::vector<unsigned char> bytes = inflated(column["data"]);
    const auto width = static_cast<std::size_t>(type[1] - '0');
    std::vector<double> values;
    for (std::size_t i = 0; i < count && bytes.size() == count * width; ++i) {
        std::uint32_t word = 0;
        for (std::size_t byte = 0; byte < width; ++byte)
            word |= static_cast<std::uint32_t>(bytes[byte * count + i]) << 8 * byte;
        float number = 0;
        std::memcpy(&number, &word, sizeof number);
        values.push_back(type == "f4"   ? static_cast<double>(number)
                         : type == "i2" ? static_cast<double>(static_cast<std::int16_t>(word))
                                        : static_cast<double>(word));
    }
    return values;
}

/// The blocks of a result of a page, as a browser finds them: an element ends where its end tag first stands.
inline std::map<std::string, nlohmann::json> blocksOf(const std::string& page, int result = 0) {
    std::map<std::string, nlohmann::json> blocks;
    const std::string start =
        "<script type=\"application/json\" data-result=\"" + std::to_string(result) + "\" data-block=\"";
    for (std::size_t at = page.find(start); at != std::string::npos; at = page.find(start, at + 1)) {
        const std::size_t name = at + start.size();
        const std::size_t text = page.find('>', name) + 1;
        const std::size_t end = page.find("</script", text);
        blocks[page.substr(name, page.find('"', name) - name)] =
            nlohmann::json::parse(page.substr(text, end - text), nullptr, false);
    }
    return blocks;
}
