/// \file
/// The histogram of the directions of difference vectors.
#pragma once

#include <cstdint>
#include <vector>

#include "VRKCoreExport.h"

template <typename T>
class ClusterPoint;
class Parameter;
class ReflexVector;

/// Counts the directions of vectors in equal intervals of azimuth and polar angle.
///
/// The pole of the histogram is the tilt axis, the volume's y. With r = sqrt(x^2 + z^2),
///
///     azimuth = atan2(z, x) + pi / 2   0 along -z, pi / 2 along x, pi along z
///     polar   = atan2(r, y)            0 along y, pi along -y
///
/// and bins from 0 to pi for both, vectors of the half space x > 0 fill all bins and others have none. A
/// vector and its opposite are one direction: foldToHalfSpace() takes the one of the two that has a bin.
class VRKCORE_EXPORT VRKSphericalProjection {
public:
    /// Fills the histogram, then scales it to 0 ... 255 for an image.
    ///
    /// \param diffVectors  vectors of three coordinates in the half space (foldToHalfSpace()), of which the
    ///                     caller stays the owner. Vectors along the pole (x = z = 0) have no azimuth and are
    ///                     left out.
    /// \param image        nPhi x nTheta bins, azimuth fastest, cleared by the caller: counts are added to
    ///                     what it holds. Bins are pi / nPhi by pi / nTheta wide; an angle out of
    ///                     range by less than a bin counts in the last one of its side, so that rounding
    ///                     drops none. Afterwards every bin holds trunc(count / largest count * 255).
    /// \param maxValue     receives the largest count
    /// \param quiet        keeps the remarks on number and largest count out of the log
    /// \return variance of the counts over all bins. 0 with an error in the log when there is no list or no
    ///         image, or when a vector has no bin or is not finite; neither this one nor those after it
    ///         are counted then, and *maxValue is not written.
    static float getSphericalHistoImage(std::vector<ClusterPoint<double>*>* diffVectors, int* image, int nPhi,
                                        int nTheta, int* maxValue, bool quiet);

    /// The same for the difference vectors of all pairs of reflections, folded: bit for bit what comes out of
    /// CalculateDiffVectors::calculateDiffVectors() for the half space, foldToHalfSpace() and
    /// getSphericalHistoImage(), many times faster, since no list of the vectors is made.
    ///
    /// \param reflections  none of them changed; a list that is null or empty gives 0 and leaves the image
    ///                     alone
    /// \param parameter    lengths of the vectors, and which centres of the reflections count
    /// \param vectors      receives the number of vectors
    static float getSphericalHistoImageOfPairs(ReflexVector* reflections, Parameter* parameter, int* image,
                                               int nPhi, int nTheta, int* maxValue, std::int64_t* vectors,
                                               bool quiet);

    /// Inverts vectors of three coordinates where needed: afterwards x > 0, or x is 0 and z not below 0. Null
    /// is taken.
    static void foldToHalfSpace(std::vector<ClusterPoint<double>*>* diffVectors);

private:
    /// Brings the tilt axis to the third coordinate: y and z change places.
    static void rotatePoint(double& x, double& y, double& z);
};
