/// \file
/// A pixel of a pattern that got another value.
#pragma once

#include <cstdint>

struct ReplacedPixel {
    std::uint32_t place = 0;  ///< in its pattern, x fastest
    short value = 0;          ///< since then
};
