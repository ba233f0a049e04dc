/// \file
/// Fuzzy subtractive clustering.
#pragma once

#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/CubicGrid.h"
#include "cellfinding/DiffVector3D.h"
#include "foundation/VoxProgressObserver.h"

/// Clusters around the places where most vectors lie, found one after the other (S. L. Chiu: Fuzzy model
/// identification based on cluster estimation, J. Intell. Fuzzy Syst. 2, 1994, 267-278,
/// doi:10.3233/IFS-1994-2306), without a radius and a least density that have to match each other.
///
/// 1. Every vector raises the potential around it by exp(-4 d^2 / r^2), d the distance, r the radius. The
///    potentials are summed over a regular grid of r / 4.
/// 2. The highest potential is the first centre. Around every centre its potential times
///    exp(-4 d^2 / (1.5 r)^2) is taken away, which leaves the next centre as the highest one. A centre of
///    less than half the potential of the first must be the farther from all others the weaker it is. The
///    search ends at the potential that chance would reach in as many vectors scattered evenly over the
///    surroundings (five standard deviations above their mean, at least three vectors at the place).
/// 3. Memberships and centres are iterated as in fuzzy c-means with a noise class at the constant distance
///    0.75 r (R. N. Dave: Characterization and detection of noise in clustering, Pattern Recogn. Lett. 12,
///    1991, 657-664, doi:10.1016/0167-8655(91)90002-4). Every vector gets the label of its largest
///    membership.
///
/// When no radius is given it is the one at which clusters stand out most from an even distribution: about
/// four times the standard deviation of the vectors of a cluster, found from the distances between vectors.
class VRKCORE_EXPORT FSC : public VoxProgressObservable {
public:
    /// Labels the points of the grid (two or three coordinates, in voxels) as DBSCAN does: 0 noise, 1 and up
    /// the clusters, here by falling potential. Replaces \p clusters and \p noise, both owned by the caller;
    /// what the lists held before is not deleted.
    ///
    /// \param radius       r in voxels; 0: found from the vectors, between 1.5 and 16
    /// \param memberships  may be null; receives for every point of the grid its membership, 0 to 1, in its
    ///                     cluster, or in the noise
    /// \param centres      may be null; receives the fuzzy centre of every cluster, weighted with the squares
    ///                     of the memberships, in the order of the labels (z is 0 for two coordinates)
    /// \returns false, with one line in the log and nothing changed, for null arguments, fewer than two
    ///          points, another number of coordinates than two or three, coordinates that are no numbers, a
    ///          radius that is negative or no number, or so small against the extent of the vectors that the
    ///          grid would exceed 64 MiB (the line tells the smallest that is possible), and when canceled
    ///
    /// Reports 100 steps of progress. At most 32767 clusters; the points of others are noise and an error
    /// says so.
    bool cluster(CubicGrid<ClusterPoint<double>>* grid, double radius,
                 std::vector<Cluster<Point<double>>*>* clusters, std::vector<ClusterPoint<double>*>* noise,
                 std::vector<double>* memberships = nullptr, std::vector<DiffVector3D>* centres = nullptr);

    /// The radius that cluster() finds when none is given; 0 when the points are too few or have other than
    /// two or three coordinates.
    static double findRadius(CubicGrid<ClusterPoint<double>>* grid);
};
