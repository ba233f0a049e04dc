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
/// x not above y by more than the tolerance; false for values that are not numbers.
constexpr bool lessOrEqual(double x, double y, double eps) {
    return x - eps <= y;
}

}  // namespace VRK::detail
