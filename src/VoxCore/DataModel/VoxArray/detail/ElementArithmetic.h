/// \file
/// What VoxArray does with single elements, for every element type it has.
#pragma once

#include <cstdio>
#include <limits>
#include <ostream>
#include <string>
#include <type_traits>

#include "VoxCore/DataModel/VoxPoint3D.h"

namespace VRK::detail {

/// Whether all values of T can be numbered in a small table.
template <typename T>
inline constexpr bool kIsNarrow = std::is_integral_v<T> && sizeof(T) <= 2;

/// Integers are computed as int (smaller types cannot overflow it) and wrap on the way back.
template <typename T>
struct Element {
    static T convert(auto value) {
        if constexpr (std::is_same_v<T, bool>)
            return value != 0;
        else
            return static_cast<T>(value);
    }
    static T add(T a, T b) { return convert(+a + +b); }
    static T subtract(T a, T b) { return convert(+a - +b); }
    static T multiply(T a, T b) { return convert(+a * +b); }
    static T divide(T a, T b) { return convert(+a / +b); }
    static T divideOrZero(T a, T b) { return b == T{} ? T{} : divide(a, b); }
    static T fromIndex(unsigned index) { return convert(index); }
    static T one() { return T{1}; }
    static double number(T value) { return static_cast<double>(value); }
    static void print(std::ostream& out, T value) { out << +value; }
    static void appendFixed(std::string& text, T value) {
        // 310 digits before the point are the longest a double has.
        char buffer[340];
        std::snprintf(buffer, sizeof(buffer), "%11.4f ", number(value));
        text += buffer;
    }
};

template <typename S>
struct Element<VoxPoint3D<S>> {
    using Point = VoxPoint3D<S>;
    static Point add(Point a, const Point& b) { return a += b; }
    static Point subtract(Point a, const Point& b) { return a -= b; }
    static Point multiply(Point a, const Point& b) { return a *= b; }
    static Point divide(Point a, const Point& b) { return a /= b; }
    static Point divideOrZero(const Point& a, const Point& b) {
        using E = Element<S>;
        return {E::divideOrZero(a.x, b.x), E::divideOrZero(a.y, b.y), E::divideOrZero(a.z, b.z)};
    }
    static Point fromIndex(unsigned index) {
        const S s = Element<S>::fromIndex(index);
        return {s, s, s};
    }
    static Point one() { return fromIndex(1); }
    static double number(const Point& value) { return Element<S>::number(value.x); }
    static void print(std::ostream& out, const Point& value) {
        out << '(' << +value.x << ',' << +value.y << ',' << +value.z << ')';
    }
    static void appendFixed(std::string& text, const Point& value) {
        for (int i = 0; i < Point::kDimensions; ++i)
            Element<S>::appendFixed(text, value[i]);
    }
};

}  // namespace VRK::detail
