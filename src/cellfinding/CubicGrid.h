/// \file
/// A spatial index of equal cubes over a cloud of points.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/ClusterPointDDSC.h"
#include "cellfinding/Cube.h"

namespace VRK::detail {
class CellList;
}

/// Sorts points into cubes and answers questions about their neighbourhoods, in two or three dimensions
/// (other dimensions have no neighbourhoods). P = ClusterPoint<double>, ClusterPointDDSC<double>.
///
/// The grid works on copies of the points, sorted cube by cube in ascending cube index and within a cube
/// in the order in which they were given. The copies start unclassified; the clusterings write their labels
/// into them. Their coordinates and their number stay as they are for the life of the grid.
///
/// The cubes of an axis are counted from the coordinate 0, not from the axis' minimum: cube 0 holds
/// everything at or below the edge length e, cube 1 holds (e, 2e], and so on; cube (c0, c1, c2) has the
/// index c0 + n0 * (c1 + n1 * c2) with the n of the cubes per axis, which are ceil((max - min) / e). Only
/// the index is tested against the number of cubes, so a point beyond the last cube of an axis can lie in
/// a cube of the next row. Points of an index that no cube has (coordinates that are not numbers included)
/// are outside of the grid. For each of them an unclassified point with all coordinates 0 stands at the end
/// of the list, so that the list is as long as the one given. Limits that enclose both the cloud and 0
/// leave no point outside.
///
/// No cube: limits with max <= min, or which are no numbers, give an axis no cubes and the grid none, so
/// that all points are outside. When the limits ask for more cubes than an int counts, the edge length is
/// doubled until they fit, with a warning. Memory goes with the number of points, not of cubes.
template <typename P>
class VRKCORE_EXPORT CubicGrid {
public:
    /// Limits from the points: minimum and maximum of each axis, where the maximum is at least the
    /// smallest positive normal double. An edge length below 1 means 8. The dimension is the first
    /// point's; coordinates that another point lacks count as 0. Null points are left out.
    CubicGrid(const std::vector<P*>* points, int edgeLength);
    /// \p min and \p max hold one value per axis; null stands for the points' own limits.
    CubicGrid(const std::vector<P*>* points, const double* min, const double* max, int edgeLength);
    CubicGrid(const CubicGrid<P>& other);
    CubicGrid<P>& operator=(const CubicGrid<P>& other);
    ~CubicGrid();

    /// List and points belong to the grid.
    std::vector<P*>* getPoints() { return &m_points; }
    /// Null for an index out of range.
    P* getPoint(int i);
    int getNumberOfPoints() const { return static_cast<int>(m_points.size()); }
    int getDimension() const { return m_dimension; }
    int getEdgeLength() const { return m_edgeLength; }
    int getNumberOfCubes() const { return m_numberOfCubes; }

    /// Replaces \p out by the points closer to \p point than \p eps, itself included when it is in the grid.
    ///
    /// Points are looked for in the cubes up to ceil(eps / edge length) away, on each axis, from the cube of
    /// \p point: first axis outermost, within a cube in the order of the list. A point outside of the grid
    /// has no neighbourhood, nor has one whose dimension is not the grid's; points outside are in none.
    ///
    /// The first question sorts the points once more, into boxes over their true bounds: the cubes do not
    /// divide the part of a cloud where a coordinate is negative.
    void getNeighborhood(const P* point, double eps, std::vector<P*>* out);
    /// The number of points that getNeighborhood() finds.
    int getSizeOfNeighborhood(const P* point, double eps);
    /// Distance to the k-th nearest point, counting \p point itself when it is in the grid. Looks for it
    /// within 1, 2, 4, 16 and 256; 0 when even then fewer than k points are found or k is below 1.
    double getSizeOfKNN(const P* point, int k);

    /// Whether the neighbourhood of each point of the grid holds every point closer than \p eps. So it is
    /// when no point lies outside of the grid or beyond the last cube of an axis.
    bool coversRadius(double eps) const;

    /// Logs the grid's shape.
    void print() const;

private:
    static constexpr int kMaxAxes = 3;
    using Cell = std::array<int, kMaxAxes>;

    void init(const std::vector<P*>& points, const double* min, const double* max, int edgeLength);
    void countCubes();
    void place(const std::vector<P*>& points);
    void linkPoints();
    int getCubeIndex(const P* point) const;
    /// Cube coordinates of a cube index.
    Cell getCubeCoordinates(int cubeIndex) const;
    bool isBeyondAnAxis(const P* point) const;
    int reachInCubes(double eps) const;
    /// Calls visit(slot, square of the distance) for each neighbour, in no particular order.
    template <typename Visit>
    void visitNeighborhood(const P* point, double eps, Visit visit);

    std::vector<P> m_storage;  // one block, cube by cube
    std::vector<P*> m_points;
    std::vector<Cube> m_cubes;                             // those with points, ascending
    std::shared_ptr<const VRK::detail::CellList> m_cells;  // from the first question on
    std::vector<int> m_cubesPerAxis;
    std::vector<double> m_gridMin;
    std::vector<double> m_gridMax;
    int m_numberOfCubes = 0;
    int m_dimension = 0;
    int m_edgeLength = 1;
    bool m_regular = true;  // no point outside or beyond the last cube of an axis
};

extern template class CubicGrid<ClusterPoint<double>>;
extern template class CubicGrid<ClusterPointDDSC<double>>;
