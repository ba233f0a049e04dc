/// \file
/// TIFF files in memory.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

/// A page of so many pixels of a byte along each edge, packed by deflate, which it does not hold.
inline std::string emptyTiff(std::uint32_t edge) {
    std::string bytes("II*\0\x08\0\0\0", 8);
    const std::vector<std::array<std::uint32_t, 2>> values = {
        {256, edge}, {257, edge}, {258, 8}, {259, 8}, {262, 1}, {273, 0}, {277, 1}, {278, edge}, {279, 64}};
    const auto add = [&](std::uint32_t value, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            bytes += static_cast<char>(i < sizeof value ? value >> 8 * i : 0);
    };
    add(static_cast<std::uint32_t>(values.size()), 2);
    for (const auto& [tag, value] : values) {
        add(tag, 2);
        add(4, 2);  // 32-bit integers
        add(1, 4);
        add(value, 4);
    }
    add(0, 4 + 64);
    return bytes;
}
