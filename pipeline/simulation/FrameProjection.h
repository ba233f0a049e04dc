/// \file
/// Where a frame shows a point of reciprocal space.
#pragma once

#include <utility>

#include "pipeline/simulation/PatternDistortion.h"
#include "pipeline/simulation/SimulatedFrame.h"
#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// The geometry of one frame of a simulated series.
class FrameProjection {
public:
    /// \param pixelSize 1/Angstrom
    FrameProjection(const SimulationSettings& settings, const SimulatedFrame& frame, double pixelSize);

    /// Rows take a point of the volume to u, to v and to its height over the plane of the pattern.
    const Matrix3& rotation() const { return m_rotation; }
    /// How fast the height of a point at u changes, per radian of the rotation.
    double speed(double u) const { return u * m_cosAxisTilt; }
    /// Pixel (x, y) of the point (u, v), 1/Angstrom.
    std::pair<double, double> pixel(double u, double v) const;

private:
    Matrix3 m_rotation;
    double m_cosAxisTilt;
    double m_cosAxis;
    double m_sinAxis;
    double m_pixelSize;
    double m_centreX;
    double m_centreY;
    PatternDistortion m_distortion;
};

}  // namespace vrk
