/// \file
/// Comparisons with a tolerance, the same for cells, their tests and the reduction.
#pragma once

namespace VRK::detail {

constexpr bool lessThan(double x, double y, double eps) {
    return x < y - eps;
}
constexpr bool greaterThan(double x, double y, double eps) {
    return y < x - eps;
}
constexpr bool equal(double x, double y, double eps) {
    return !(x < y - eps || y < x - eps);
}

}  // namespace VRK::detail
