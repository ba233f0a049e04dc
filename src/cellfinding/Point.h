/// \file
/// Points of any dimension, the small value type on which the cell finding works.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "VRKCoreExport.h"

/// A point, or vector, of up to 255 coordinates of type \p T (int, float, double).
///
/// Unequal dimensions are no error: the operations on two points answer with a value that tells so
/// (distances 0, products and angles the largest finite double, comparisons false).
///
/// Up to three coordinates live inside the object, more in a heap array that the point owns; copies are
/// deep either way. Millions of difference vectors are alive at once, and their number is what limits
/// the cell finding.
template <typename T>
class VRKCORE_EXPORT Point {
public:
    using ValueType = T;

    /// All coordinates 0. Dimensions above 255 count as 255.
    explicit Point(unsigned short dimension) { allocate(std::min<unsigned short>(dimension, 255)); }
    /// Copies the values; a null array gives zeros.
    Point(const T* data, unsigned char dimension) {
        allocate(dimension);
        if (data) std::copy_n(data, dimension, m_data);
    }
    /// Copies \p other; null gives a point of dimension 0.
    explicit Point(const Point<T>* other)
        : Point(other ? other->m_data : nullptr, other ? other->m_dimension : 0) {}
    Point(const Point<T>& other) : Point(&other) {}
    Point<T>& operator=(const Point<T>& other) {
        if (this != &other) setDataAndDimension(other.m_data, other.m_dimension);
        return *this;
    }
    ~Point() { release(); }

    unsigned char getDimension() const { return m_dimension; }
    /// Coordinate \p i; 0 outside [0, dimension).
    T getData(int i) const { return i >= 0 && i < m_dimension ? m_data[i] : T(0); }
    /// The coordinates themselves, owned by the point.
    T* getData() { return m_data; }
    const T* getData() const { return m_data; }
    /// Copies all coordinates to \p out.
    void getData(T* out) const { std::copy_n(m_data, m_dimension, out); }
    /// An index outside [0, dimension) is ignored.
    void setData(T value, int i) {
        if (i >= 0 && i < m_dimension) m_data[i] = value;
    }
    /// Replaces coordinates and dimension; a null array gives zeros. \p data may be the point's own.
    void setDataAndDimension(const T* data, unsigned char dimension);

    /// Euclidean distance; 0 when the dimensions differ.
    double distTo(const Point<T>* other) const {
        if (other->m_dimension != m_dimension) return 0.0;
        double sum = 0.0;
        for (int i = 0; i < m_dimension; ++i) {
            const double d = static_cast<double>(m_data[i]) - static_cast<double>(other->m_data[i]);
            sum += d * d;
        }
        return std::sqrt(sum);
    }
    /// Euclidean distance to \p n raw coordinates; 0 when n differs from the dimension.
    double distTo(const double* data, int n) const {
        if (n != m_dimension) return 0.0;
        double sum = 0.0;
        for (int i = 0; i < m_dimension; ++i) {
            const double d = static_cast<double>(m_data[i]) - data[i];
            sum += d * d;
        }
        return std::sqrt(sum);
    }
    /// Scalar product; the largest finite double when the dimensions differ.
    double Dot(const Point<T>* other) const {
        if (other->m_dimension != m_dimension) return std::numeric_limits<double>::max();
        double sum = 0.0;
        for (int i = 0; i < m_dimension; ++i)
            sum += static_cast<double>(m_data[i]) * static_cast<double>(other->m_data[i]);
        return sum;
    }
    double getSquareLength() const { return Dot(this); }
    double getLength() const { return std::sqrt(getSquareLength()); }
    /// Angle between the two vectors in radians, 0 to pi; the largest finite double when the dimensions
    /// differ, not a number when one of the vectors is zero.
    double calcAngle(const Point<T>* other) const;

    /// Scales every coordinate (truncating for integers).
    void multiply(double f);
    /// Divides every coordinate by the length. A zero vector becomes not a number; a zero vector of
    /// integers, which have no such value, stays zero.
    void normalize();

    /// Equal dimensions and exactly equal coordinates.
    bool isEqual(const Point<T>* other) const;

    /// Logs "( x, y, z )".
    void print() const;
    /// Logs "( x, y, z ) - length = " and the length.
    void printCoefficientsWithLength() const;
    /// Logs "x, y, z".
    void printOnlyCoefficients() const;

private:
    static constexpr int kInside = 3;

    void allocate(unsigned short dimension) {
        m_dimension = static_cast<unsigned char>(dimension);
        m_data = dimension > kInside ? new T[dimension]() : m_inside;
    }
    void release() {
        if (m_data != m_inside) delete[] m_data;
    }

    T* m_data;
    T m_inside[kInside] = {};
    unsigned char m_dimension;  // last, so that derived points put their label beside it
};

extern template class Point<int>;
extern template class Point<float>;
extern template class Point<double>;
