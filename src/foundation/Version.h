/// \file
/// The library's version text, as it stands in the files that the library writes.
#pragma once

namespace VRK {

inline constexpr const char* kVersion = "1.3.1";

}  // namespace VRK
