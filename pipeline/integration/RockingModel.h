/// \file
/// How much of a reflection's intensity a frame records, by the distance of the reflection from the Ewald
/// sphere.
#pragma once

#include "pipeline/geometry/RotationMode.h"

namespace vrk {

/// The profile of a reflection along the excitation error s is a Gaussian,
///
///     R(s) = (w0 / w) exp(-s^2 / (2 w^2)),    w^2 = w0^2 + (m |g|)^2,
///
/// with w0 the extent of the reciprocal-lattice points (size of the crystal, divergence of the beam) and m
/// the mosaic spread. Its area is the same for all reflections, so that intensities on the scale of R are
/// proportional to the squares of structure factors whatever the path of the reflection through the sphere:
/// no further Lorentz correction belongs to them. (L. Palatinus et al., Acta Cryst. B 75 (2019) 512,
/// doi:10.1107/S2052520619007534, for the shapes and the two contributions to the width.)
///
/// A frame records the mean of R over what happens during its exposure: over the rotation when the tilt runs
/// on, over the precession circle, R itself when everything stands still.
struct RockingModel {
    RotationMode mode = RotationMode::Continuous;
    double width = 0.0025;  ///< w0, 1/Angstrom, standard deviation
    double mosaicity = 0;   ///< m, radians, standard deviation
    double precession = 0;  ///< half angle of the cone, radians

    /// w at a distance from the origin, 1/Angstrom.
    double widthAt(double length) const;

    struct Share {
        double value = 0;        ///< mean of R over the frame
        double byShift = 0;      ///< its derivative by the excitation error, Angstrom
        double byWidth = 0;      ///< by w0, Angstrom
        double byMosaicity = 0;  ///< by m, 1/radian
    };
    /// \param excitation  s at the frame's tilt, 1/Angstrom
    /// \param rate        ds/dt there, 1/Angstrom per radian
    /// \param length      |g|, 1/Angstrom
    /// \param rotation    of the frame, radians
    Share share(double excitation, double rate, double length, double rotation) const;

    /// |s| beyond which a frame records less than about 1 % of R(0).
    double reach(double rate, double length, double rotation) const;
    /// The part of the area of R that the frame covers, for a frame with the given share. Frames without gaps
    /// cover 1 together when the curve lies within the series.
    double coverage(double share, double rate, double rotation) const;
};

}  // namespace vrk
