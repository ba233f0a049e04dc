/// \file
/// The records of an MRC file as bytes. Files are little-endian whatever machine reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "VoxCore/DataModel/mrcH.h"

namespace VRK::detail {

inline constexpr std::size_t kMainHeaderBytes = 1024;
/// 17 float32 values and 76 bytes without meaning.
inline constexpr std::size_t kSliceRecordBytes = 144;

/// Fields that have no place in the file keep what they hold.
void decodeMainHeader(std::span<const char, kMainHeaderBytes> bytes, mrcH& header);
void encodeMainHeader(const mrcH& header, std::span<char, kMainHeaderBytes> bytes);

void decodeSliceRecord(std::span<const char, kSliceRecordBytes> bytes, mrcH& header, int slice);
/// The bytes behind the 17 values become 0.
void encodeSliceRecord(const mrcH& header, int slice, std::span<char, kSliceRecordBytes> bytes);

/// One float32 at the start of the bytes.
float decodeFloat(const char* bytes);

/// Turns values between the machine's and the file's byte order, in place.
void swapLittleEndian(std::span<short> values);

}  // namespace VRK::detail
