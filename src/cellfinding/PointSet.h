/// \file
/// A set of points that keeps its own statistics.
#pragma once

#include <memory>
#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Point.h"

template <typename T>
class Line;

/// An owning set of points (P = Point<int>, Point<float>, Point<double>) with centre, bounds, principal
/// moments and axes. The statistics always describe the current points: every change recomputes them.
///
/// Every point given is copied and stays the caller's. The set's dimension is that of its first point.
/// A set made from nothing has no points and the dimension 0, so that its accessors answer as for an
/// axis out of range.
///
/// Messages (VRKLogger): "No points given." (Error), "Not all points are of the same dimension." (Error,
/// once for every such point), "Could not allocate enough memory." (Error; the failure is passed on).
template <typename P>
class VRKCORE_EXPORT PointSet {
public:
    /// Null pointers in the list are passed over.
    explicit PointSet(const std::vector<P*>* points);
    /// A set of one point.
    explicit PointSet(const P* point);
    PointSet(const PointSet<P>& other);
    PointSet<P>& operator=(const PointSet<P>& other);
    virtual ~PointSet();

    /// False when \p point is null or of another dimension.
    bool addPoint(const P* point);
    /// Removes the first point that equals \p point; false when there is none.
    bool deletePoint(const P* point);
    /// Replaces the contents; the list may hold points of this very set. With a null or empty list the
    /// set is empty afterwards and the result false.
    bool setNewPoints(const std::vector<P*>* points);

    int getDimension() const { return m_dimension; }
    int getNumberOfPoints() const { return static_cast<int>(m_points.size()); }
    /// Owned by the set; null for an index out of range.
    P* getPointAt(int i) const;

    /// Unweighted mean of all points; the largest finite double for an axis out of range.
    double getCenterOfGrafity(int axis) const;
    void getCenterOfGrafity(double* out) const;
    /// Does nothing unless \p out has the set's dimension and that is at least 1.
    void getCenterOfGrafity(P* out) const;

    /// Smallest coordinate; for an axis out of range the smallest positive normal double.
    double getMin(int axis) const;
    /// Largest coordinate, but never below the smallest positive normal double: a set without a positive
    /// coordinate on the axis reports that. For an axis out of range the largest finite double.
    double getMax(int axis) const;
    void getMin(double* out) const;
    void getMax(double* out) const;

    /// The k-th largest eigenvalue of the covariance matrix (divided by the number of points), not a number
    /// when coordinates are not finite; the largest finite double for k out of range.
    double getMomentsOfInertia(int k) const;
    /// Entry of the matrix whose column k is the unit eigenvector of moment k (see VoxVTKMath::JacobiN());
    /// the largest finite double when an index is out of range.
    double getMassCentroidAxis(int row, int column) const;
    /// Copies one column.
    void getMassCentroidAxis(int column, double* out) const;

    /// The set as a line through its centre along its longest axis. False, with \p line unchanged, when
    /// the ratio of the largest to the smallest moment lies in 0 to 10; false also when the line is null
    /// or of another dimension. A negative ratio (a smallest moment rounded below zero) and an undefined
    /// one count as elongated.
    bool getLine(Line<double>* line) const;
    /// Whether the ratio of the largest to the smallest moment lies between the integer quotient
    /// 1 / factor and the factor; false for a factor of 0.
    bool isSpherical(int factor) const;
    /// A placeholder that callers rely on as such: always true.
    bool isNear(const PointSet<P>* other) const;

    /// Logs the statistics, one message.
    void print() const;

protected:
    void initVariables();
    void init(const std::vector<P*>* points);
    double calcCovEntry(int i, int j) const;
    void calculateMomentsOfInertiaAndMassCentroidAxis();

private:
    bool assign(const std::vector<P*>* points);
    void widen(const P& point);
    void resetBounds();
    double ratioOfMoments() const;
    bool hasAxis(int axis) const { return axis >= 0 && axis < m_dimension; }

    int m_dimension = 0;
    std::vector<double> m_center;
    std::vector<double> m_moments;
    std::vector<double> m_axes;  // row-major, one eigenvector per column
    std::vector<double> m_min;
    std::vector<double> m_max;
    std::vector<std::unique_ptr<P>> m_points;
};

extern template class PointSet<Point<int>>;
extern template class PointSet<Point<float>>;
extern template class PointSet<Point<double>>;
