/// \file
/// A vector in the plane that knows its length.
#pragma once

#include "VRKCoreExport.h"

/// The length is kept up to date by every constructor and setter.
class VRKCORE_EXPORT DiffVector {
public:
    DiffVector(double x, double y);
    DiffVector(const DiffVector&) = default;
    DiffVector& operator=(const DiffVector&) = default;
    virtual ~DiffVector();

    double getX() const { return m_x; }
    double getY() const { return m_y; }
    double getLength() const { return m_length; }
    int getDimension() const { return m_dimension; }

    /// Coordinate \p i; 0 outside [0, dimension).
    virtual double getValue(int i) const;
    void getValues(double& x, double& y) const;
    /// An index outside [0, dimension) is ignored.
    virtual void setValue(int i, double v);
    void setValues(double x, double y);

    /// Whether \p a is at most as long as \p b; false when the dimensions differ. True both ways for equal
    /// lengths, so it is no order for std::sort: sort by getLength() with a strict comparison instead.
    static bool compareLength(const DiffVector* a, const DiffVector* b);

protected:
    double m_x;
    double m_y;
    int m_dimension = 2;
    double m_length = 0.0;

    virtual void updateLength();
};
