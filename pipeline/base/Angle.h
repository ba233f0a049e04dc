/// \file
/// Degrees, in which people and files have angles, and radians.
#pragma once

#include <numbers>

namespace vrk {

/// Radians in a degree.
inline constexpr double kDegree = std::numbers::pi / 180.0;

}  // namespace vrk
