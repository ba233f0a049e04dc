/// \file
/// Density-based clustering that keeps touching groups of different density apart.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/CubicGrid.h"

/// Clustering after B. Borah, D. K. Bhattacharyya: DDSC: a density differentiated spatial clustering
/// technique, Journal of Computers 3 (2008) 72-79, doi:10.4304/jcp.3.2.72-79.
///
/// A density is the number of points in a neighbourhood (counts above 32767 read as 32767). Where the
/// densities of a region stay within a factor alpha of each other, a point of its mean density (1 + alpha) /
/// 2 has at least k1 = (1 + alpha) / (2 alpha) of the greatest one, and the smallest one is at least k2 = 2 /
/// (1 + alpha) of it. These are the two thresholds of isHomogeneous(): k1 towards denser neighbours, k2
/// towards thinner ones. They are taken against the density s0 of the point that a cluster starts from, not
/// from neighbour to neighbour, so that a cluster cannot creep along a gradual slope: what lies within them
/// has the density step of the cluster (recorded as s0), what does not has another one, and a neighbourhood
/// of s points is homogeneous when among the nearest k4 s, k4 = alpha / (1 + alpha), none is denser and at
/// least k3 s, k3 = 2 / ((d + 1)(1 + alpha)) in d dimensions, have the cluster's step. Thinner points are not
/// counted: they are what the surface of every group looks like. Neither are points that belong to earlier
/// clusters. isHomogeneous() decides about every point that a cluster takes in.
class VRKCORE_EXPORT DDSC {
public:
    /// Labels the points of the grid as DBSCAN does, and replaces the lists in the same way (owned by the
    /// caller).
    ///
    /// No grid, fewer than two points and missing lists are reported as errors and change nothing; an eps
    /// that is not above 0, a minPts below 2 and an alpha that is not above 1 become 3, 60 and 2, each with
    /// a warning. From the 32768th cluster on, points stay noise and an error says so.
    static void clustering(CubicGrid<ClusterPointDDSC<double>>* grid, double eps, int minPts, double alpha,
                           std::vector<Cluster<Point<double>>*>* clusters,
                           std::vector<ClusterPoint<double>*>* noise);

private:
    using PointType = ClusterPointDDSC<double>;

    /// Grows a cluster from a point; false, with the point as noise, when it cannot start one. Core points
    /// (at least minPts neighbours, homogeneous) take in the neighbours that are homogeneous with them, which
    /// are those of the cluster's density. With \p takeRim the cluster then takes its rim in.
    static bool expand(CubicGrid<PointType>* grid, int pointIndex, double eps, int minPts, int clusterID,
                       double k1, double k2, double k3, double k4, bool takeRim);
    /// Labels those of the candidates (sorted, each once; the other neighbours of the cluster's core points)
    /// that have no more than the share \p k3 of their neighbours out of the cluster's reach: its surface,
    /// and single points that happen to lie dense or thin. A touching group of another density reaches on, so
    /// its points stay free. Within reach, points count with the cluster's \p size, beyond not at all.
    static void takeRimPoints(CubicGrid<PointType>& grid, const std::vector<PointType*>& candidates,
                              double eps, short label, int size, double k1, double k2, double k3);
    /// Compares the recorded sizes t of the neighbours' neighbourhoods with s, that of \p point; those below
    /// 1 do not count. False when the quotient of smaller and larger size, whole numbers divided without
    /// remainder (1 for equal sizes, 0 otherwise), is at or below \p thinner for t < s, or \p denser for the
    /// others. Otherwise whether the number of counted neighbours lies in [\p least, \p most].
    static bool isHomogeneous(const PointType* point, const std::vector<PointType*>* neighbours,
                              double denser, double thinner, double least, double most);
};
