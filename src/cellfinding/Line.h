/// \file
/// A straight line in point-and-direction form.
#pragma once

#include <memory>

#include "VRKCoreExport.h"
#include "cellfinding/Point.h"

/// The line point + t * vec (T = float, double). The direction is taken as given, not normalised.
template <typename T>
class VRKCORE_EXPORT Line {
public:
    /// Through the origin along (1, 1, ...). A dimension below 1 (or above 255) is reported as
    /// "Dimension 0 not valid." (Error) and leaves the line without point and direction.
    explicit Line(int dimension);
    /// Copies both. Unequal dimensions are reported as "Point and vec must be of the same dimension."
    /// (Error) and leave the line without point and direction; so do null pointers.
    Line(const Point<T>* point, const Point<T>* vec);
    Line(const double* point, const double* vec, int dimension);
    Line(const Line<T>& other);
    Line<T>& operator=(const Line<T>& other);
    ~Line();

    int getDimension() const { return m_dimension; }
    /// Owned by the line; null for a line without point.
    Point<T>* getPoint() const { return m_point.get(); }
    Point<T>* getVec() const { return m_vec.get(); }
    /// 0 for a coordinate out of range.
    T getPoint(int i) const { return m_point ? m_point->getData(i) : T(0); }
    T getVec(int i) const { return m_vec ? m_vec->getData(i) : T(0); }
    /// Copies the point in; false, with nothing changed, when its dimension differs from the line's.
    bool setPoint(const Point<T>* point);
    bool setVec(const Point<T>* vec);

    /// The point of the line that is nearest to \p q, as a new point that the caller owns. Null, with
    /// the message "Dimension are not the same" (Error), when the dimensions differ. A zero direction
    /// gives coordinates that are not numbers.
    Point<T>* getFootOfAPerpendicular(const Point<T>* q) const;
    /// Distance to the foot of the perpendicular; 0 when there is none.
    double getDistTo(const Point<T>* q) const;

    /// Whether points and directions are the same, coordinate by coordinate; the same line with other
    /// parameters is not equal. A line of dimension below 1 equals any.
    bool equalTo(const Line<T>* other) const;

    /// Logs "Line: ", then the point, then the direction.
    void print() const;

private:
    void take(const Point<T>* point, const Point<T>* vec);

    std::unique_ptr<Point<T>> m_point;
    std::unique_ptr<Point<T>> m_vec;
    int m_dimension = 0;
};

extern template class Line<float>;
extern template class Line<double>;
