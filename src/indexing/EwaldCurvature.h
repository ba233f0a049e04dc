/// \file
/// The curvature of the Ewald sphere and the correction of positions for it.
#pragma once

#include "VRKCoreExport.h"

/// Corrects positions that were found in a volume built as if every pattern were a plane.
///
/// A pattern recorded at the tilt t (radians) is taken for the plane with the normal n = (-sin t, 0, cos t)
/// through the origin of reciprocal space. The Ewald sphere leaves that plane by |g|^2 lambda / 2 along n, so
/// that a reflection found at p lies at
///
///     g = p - s n |g|^2 lambda / 2
///
/// with the sense s = +1 or -1 of the tilt, which a flat volume does not tell. The step is formed with the
/// length of p instead of that of g; at 200 kV and 1.2 per Angstrom the difference is 0.0003 of the step.
class VRKCORE_EXPORT EwaldCurvature {
public:
    /// \param wavelength  in Angstrom; 0 means no curvature
    /// \param pixelSize   in 1/m per voxel
    EwaldCurvature(double wavelength, double pixelSize);

    /// Relativistic wavelength in Angstrom of electrons of the given energy in kV; 0 when it is not positive.
    /// 200 kV give 0.02508.
    static double wavelength(double kiloVolts);
    /// The reverse: the energy in kV of electrons of a wavelength in Angstrom; 0 when it is not positive.
    static double kiloVolts(double wavelength);

    /// How far the sphere leaves the plane at a place relative to the origin, in voxels.
    double step(const double relative[3]) const;

    /// The tilt at which a voxel at this place relative to the origin was seen, in radians from -pi/2 to
    /// pi/2: atan(z / x). 0 on the axis.
    static double tiltOf(const double relative[3]);

    /// Corrects one position.
    /// \param position   found place, voxels
    /// \param origin     place of 000, voxels
    /// \param tilt       at which it was seen, radians
    /// \param sense      +1 or -1; 0 corrects nothing
    /// \param corrected  receives the place; may be `position`
    void correct(const double position[3], const double origin[3], double tilt, int sense,
                 double corrected[3]) const;

private:
    double m_factor;  ///< step = factor * squared distance in voxels
};
