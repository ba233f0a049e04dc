/// \file
/// Rounding in loops over many numbers.
#pragma once

#include <cmath>
#include <cstdint>

namespace vrk {

/// What std::round() gives, which is a call where the processor may be of any age.
inline double nearestWhole(double q) {
    constexpr double kAllWhole = 4503599627370496.0;  // 2^52
    constexpr double kBelowHalf = 0.49999999999999994;
    if (!(std::abs(q) < kAllWhole)) return q;
    return static_cast<double>(static_cast<std::int64_t>(q + std::copysign(kBelowHalf, q)));
}

}  // namespace vrk
