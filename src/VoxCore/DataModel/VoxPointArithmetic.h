/// \file
/// Arithmetic that the point types share. A point type derives from it, naming itself.
#pragma once

#include <cmath>

namespace VRK::detail {

/// Element-wise arithmetic of points with points and with scalars. Results are formed as the scalar's
/// own arithmetic forms them and are converted back to it: integers wrap. Nothing guards a division by
/// zero: it is what it is for the scalar, so integer coordinates must not be divided by 0.
///
/// \tparam Point  the deriving type; it has kDimensions and operator[]
/// \tparam Scalar type of a coordinate
template <typename Point, typename Scalar>
class PointArithmetic {
public:
    friend constexpr Point operator+(Point a, const Point& b) { return a += b; }
    friend constexpr Point operator-(Point a, const Point& b) { return a -= b; }
    friend constexpr Point operator*(Point a, const Point& b) { return a *= b; }
    friend constexpr Point operator/(Point a, const Point& b) { return a /= b; }
    friend constexpr Point operator+(Point a, Scalar b) { return a += b; }
    friend constexpr Point operator-(Point a, Scalar b) { return a -= b; }
    friend constexpr Point operator*(Point a, Scalar b) { return a *= b; }
    friend constexpr Point operator/(Point a, Scalar b) { return a /= b; }
    friend constexpr bool operator==(const Point& a, const Point& b) {
        for (int i = 0; i < Point::kDimensions; ++i)
            if (!(a[i] == b[i])) return false;
        return true;
    }

    constexpr Point& operator+=(const Point& b) {
        return each([&b](Scalar s, int i) { return s + b[i]; });
    }
    constexpr Point& operator-=(const Point& b) {
        return each([&b](Scalar s, int i) { return s - b[i]; });
    }
    constexpr Point& operator*=(const Point& b) {
        return each([&b](Scalar s, int i) { return s * b[i]; });
    }
    constexpr Point& operator/=(const Point& b) {
        return each([&b](Scalar s, int i) { return s / b[i]; });
    }
    constexpr Point& operator+=(Scalar b) {
        return each([&b](Scalar s, int) { return s + b; });
    }
    constexpr Point& operator-=(Scalar b) {
        return each([&b](Scalar s, int) { return s - b; });
    }
    constexpr Point& operator*=(Scalar b) {
        return each([&b](Scalar s, int) { return s * b; });
    }
    constexpr Point& operator/=(Scalar b) {
        return each([&b](Scalar s, int) { return s / b; });
    }

private:
    template <typename Operation>
    constexpr Point& each(Operation operation) {
        Point& self = static_cast<Point&>(*this);
        for (int i = 0; i < Point::kDimensions; ++i)
            self[i] = static_cast<Scalar>(operation(self[i], i));
        return self;
    }
};

/// What points with real coordinates offer beyond that.
template <typename Point, typename Scalar>
class RealPointArithmetic : public PointArithmetic<Point, Scalar> {
public:
    /// Distance from the origin.
    Scalar length() const { return static_cast<Scalar>(distance(Point())); }

    /// Euclidean distance, formed in double.
    double distance(const Point& other) const {
        double sum = 0;
        for (int i = 0; i < Point::kDimensions; ++i) {
            const double difference = static_cast<double>(self()[i]) - static_cast<double>(other[i]);
            sum += difference * difference;
        }
        return std::sqrt(sum);
    }

    /// Scales to length 1. A point at the origin has no direction and stays where it is.
    void normalize() {
        const Scalar size = length();
        if (size > 0) static_cast<Point&>(*this) /= size;
    }

    /// Writes the coordinates to the caller's array.
    void GetArray(double* coordinates) const {
        for (int i = 0; i < Point::kDimensions; ++i)
            coordinates[i] = static_cast<double>(self()[i]);
    }

private:
    const Point& self() const { return static_cast<const Point&>(*this); }
};

}  // namespace VRK::detail
