/// \file
/// The histogram of the directions of difference vectors.
#pragma once

#include <vector>

#include "VRKCoreExport.h"

template <typename T>
class ClusterPoint;

/// Counts the directions of vectors in equal intervals of azimuth and polar angle.
///
/// The pole of the histogram is the tilt axis, the volume's y. A vector and its opposite are one direction:
/// of the two the one with x > 0 is taken, or z > 0 where x is 0. With r = sqrt(x^2 + z^2),
///
///     azimuth = atan2(z, x) + pi / 2   in (0, pi], 0 along -z, pi / 2 along x, pi along z
///     polar   = atan2(r, y)            in (0, pi), 0 along y, pi along -y
///
/// so vectors of either half space fill all bins and no others.
class VRKCORE_EXPORT VRKSphericalProjection {
public:
    /// Fills the histogram, then scales it to 0 ... 255 for an image.
    ///
    /// \param diffVectors  vectors of three coordinates, of which the caller stays the owner. Vectors along
    ///                     the pole (x = z = 0) have no azimuth and are left out.
    /// \param image        nPhi x nTheta bins, azimuth fastest, cleared by the caller: counts are added to
    ///                     what it holds. Bins are pi / nPhi by pi / nTheta wide; an angle of exactly pi
    ///                     counts in the last one. Afterwards every bin holds
    ///                     trunc(count / largest count * 255).
    /// \param maxValue     receives the largest count
    /// \param quiet        keeps the remarks on number and largest count out of the log
    /// \return variance of the counts over all bins. 0 with an error in the log when there is no list or no
    ///         image, or when a vector falls into no bin because it is not finite; the image then stays as
    ///         it had become and *maxValue is not written.
    static float getSphericalHistoImage(std::vector<ClusterPoint<double>*>* diffVectors, int* image, int nPhi,
                                        int nTheta, int* maxValue, bool quiet);

private:
    /// Turns a vector by 90 degrees about x, which brings the tilt axis to the third coordinate, and inverts
    /// it where needed so that its azimuth is in the range of the bins.
    static void rotatePoint(double& x, double& y, double& z);
};
