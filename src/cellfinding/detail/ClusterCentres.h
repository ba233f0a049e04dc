/// \file
/// Cluster centres as measured vectors.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "cellfinding/Cluster.h"
#include "cellfinding/DiffVector3D.h"

namespace VRK::detail {

using Vector = std::array<double, 3>;
using Clusters = std::vector<Cluster<Point<double>>*>;

/// A place with the number of vectors that were found there.
struct Centre {
    Vector place;
    double weight;
};

/// Coordinates beyond the point's dimension are 0.
inline Vector coordinatesOf(const Point<double>& point) {
    return {point.getData(0), point.getData(1), point.getData(2)};
}

inline Vector componentsOf(const DiffVector3D& vector) {
    return {vector.getX(), vector.getY(), vector.getZ()};
}

bool isFinite(const Vector& v);

/// The centres of the clusters that have a place, in the order of the list. Null clusters, empty ones and
/// those with coordinates that are no numbers have none.
std::vector<Centre> centresOf(const Clusters& clusters);

/// 0 without centres.
double lengthOfShortest(std::span<const Centre> centres);

}  // namespace VRK::detail
