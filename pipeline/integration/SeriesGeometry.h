/// \file
/// Where the reflections of a crystal appear in the frames of a tilt series, and how that changes with every
/// parameter of the experiment.
///
/// Frames and signs. The volume frame is that of docs/conventions.md: y along the tilt axis, x the image's
/// radial direction at zero tilt. At the tilt t
///
///     e_u = (cos t, 0, sin t)        radial direction of the image
///     e_n = (-sin t, 0, cos t)       against the beam, when the axis is perpendicular to it
///     n   = e_n cos p + y sin p      against the beam, when the axis leaves the image plane by the angle p
///     e_v = y cos p - e_n sin p      the axis as the image shows it
///
/// A reciprocal point g has the excitation error s = g . n - handedness wavelength |g|^2 / 2, which is 0 on
/// the Ewald sphere, and appears at (u, v) = (g . e_u, g . e_v): behind the objective lens the distance from
/// the centre goes with the sine of the scattering angle. The lens distorts (u, v), the frame shows it turned
/// by the angle a of the axis,
///
///     x = centre_x + (u' cos a - v' sin a) / pixel,    y = centre_y + (u' sin a + v' cos a) / pixel.
///
/// The handedness is the negative of the sense of indexing/EwaldCurvature.h.
#pragma once

#include <Eigen/Core>
#include <array>
#include <vector>

#include "crystallography/BravaisTypes.h"

namespace vrk {

/// How the lens bends the image, in the frame (u, v) of the tilt axis, 1/Angstrom:
///
///     u' = u (1 + stretch + radial q) + v (shear - spiral q)
///     v' = v (1 - stretch + radial q) + u (shear + spiral q),    q = u^2 + v^2.
///
/// Stretch and shear are the two components of an ellipse, half the difference of its axes in relative units.
struct LensDistortion {
    double stretch = 0;
    double shear = 0;
    double radial = 0;  ///< square Angstrom
    double spiral = 0;  ///< square Angstrom
};

/// One frame of the series.
struct FramePose {
    double tilt = 0;  ///< radians; the middle of the rotation where the tilt runs on
    double rotation =
        0;               ///< radians that the frame stands for: what it covers, or the step to its neighbours
    double centreX = 0;  ///< where the direct beam falls, pixels (0 is the middle of the first pixel)
    double centreY = 0;
};

/// The experiment. Plain values; every parameter can be moved (GeometryStep).
struct SeriesGeometry {
    Eigen::Matrix3d reciprocal =
        Eigen::Matrix3d::Identity();           ///< columns a*, b*, c* at zero tilt, 1/Angstrom
    LATTICE::BravaisTypes ties = LATTICE::aP;  ///< type that ties the conventional cell of these vectors
    double wavelength = 0.0251;                ///< Angstrom
    int handedness = 1;                        ///< side of the Ewald sphere, 1 or -1
    double pixelSize = 0.005;                  ///< 1/Angstrom per pixel
    double axisAngle = 0;                      ///< radians from y
    double axisPitch = 0;                      ///< angle between axis and image plane, radians
    LensDistortion distortion;
    std::vector<FramePose> frames;

    /// Direct cell: a, b, c in Angstrom, alpha, beta, gamma in degrees.
    std::array<double, 6> cell() const;
};

/// Where and how a frame sees a reciprocal point.
struct SpotPlace {
    double x = 0;           ///< pixels
    double y = 0;           ///< pixels
    double excitation = 0;  ///< s, 1/Angstrom
    double rate = 0;        ///< ds/dt, 1/Angstrom per radian: -u cos p
};

/// A frame with its directions worked out, for many reflections.
class FrameView {
public:
    FrameView(const SeriesGeometry& geometry, const FramePose& frame);

    SpotPlace place(const Eigen::Vector3d& g) const;

    /// The parameters of place() that a refinement moves, in the order of the columns of derivatives(). The
    /// crystal turns about the axes of the volume frame (radians) and is strained by the tensors of
    /// latticeStrains().
    enum Column : int {
        TurnX,
        TurnY,
        TurnZ,
        Strain,  ///< the first of six
        AxisAngle = Strain + 6,
        AxisPitch,
        TiltScale,  ///< relative change of all tilts, about zero tilt
        Stretch,
        Shear,
        Radial,
        Spiral,
        CentreX,
        CentreY,
        Tilt,  ///< of this frame alone
        Columns
    };
    using Derivatives = Eigen::Matrix<double, 3, Columns>;

    /// Derivatives of x, y (pixels) and the excitation error (1/Angstrom).
    Derivatives derivatives(const Eigen::Vector3d& g, const std::vector<Eigen::Matrix3d>& strains) const;

private:
    struct Detector;

    const SeriesGeometry& m_geometry;
    double m_tilt;
    double m_centreX, m_centreY;
    double m_cosPitch, m_sinPitch;
    double m_cosAxis, m_sinAxis;  ///< over the pixel size
    double m_curvature;           ///< handedness wavelength / 2
    Eigen::Vector3d m_u, m_v, m_n, m_flat;
};

/// The symmetric strains (up to six, volume frame) that leave the symmetry of a lattice as it is: one for a
/// cubic cell, the six components for a triclinic one. \param reciprocal  columns of the conventional cell
std::vector<Eigen::Matrix3d> latticeStrains(const Eigen::Matrix3d& reciprocal, LATTICE::BravaisTypes type);

/// The vectors of a cell (Angstrom and degrees) as columns: a along x, b in the plane of x and y.
Eigen::Matrix3d standardVectors(const std::array<double, 6>& cell);

/// The vectors nearest to the given ones whose cell obeys the ties of the type exactly (b unique in
/// monoclinic cells, hexagonal axes for hP and hR).
Eigen::Matrix3d tiedVectors(const Eigen::Matrix3d& reciprocal, LATTICE::BravaisTypes type);

/// The direct cell of reciprocal vectors (columns, 1/Angstrom): Angstrom and degrees.
std::array<double, 6> directCell(const Eigen::Matrix3d& reciprocal);

/// A change of the parameters that all frames share, in the order of FrameView::Column up to Spiral.
using GeometryStep = Eigen::Matrix<double, FrameView::CentreX, 1>;

/// The geometry after a step. The crystal is strained first, then turned about x, y and z; tied cells stay
/// tied.
SeriesGeometry moved(const SeriesGeometry& geometry, const GeometryStep& step);

}  // namespace vrk
