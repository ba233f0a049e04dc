/// \file
/// Numbers as the page carries them: compressed (RFC 1950) and in base64.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace vrk {

/// What the bytes are.
enum class PackedContent {
    Columns,  ///< numbers: searched for repetitions
    Picture   ///< noise and flat areas: fast, as nothing repeats
};

/// \throw Failure when there is no memory for it
std::string packedBytes(std::span<const unsigned char> bytes, PackedContent content);

/// A column of whole numbers or floats as a JSON object with type ("i2", "u4", "f4": kind and bytes), count
/// and data. The first bytes of all values stand together, then the second ones, and so on, the lowest first:
/// they compress better so.
template <typename Value>
std::string packedColumn(std::span<const Value> values);

template <typename Value>
std::string packedColumn(const std::vector<Value>& values) {
    return packedColumn(std::span<const Value>(values));
}

}  // namespace vrk
