#include "pipeline/simulation/FrameProjection.h"

#include <cmath>

#include "pipeline/base/Angle.h"

namespace vrk {

FrameProjection::FrameProjection(const SimulationSettings& settings, const SimulatedFrame& frame,
                                 double pixelSize)
    : m_rotation(rotationAbout(
          {0, std::cos(settings.axisTilt * kDegree), std::sin(settings.axisTilt * kDegree)}, frame.tilt)),
      m_cosAxisTilt(std::cos(settings.axisTilt * kDegree)),
      m_cosAxis(std::cos(settings.axis * kDegree)),
      m_sinAxis(std::sin(settings.axis * kDegree)),
      m_pixelSize(pixelSize),
      m_centreX(frame.centreX),
      m_centreY(frame.centreY),
      m_distortion(settings.distortion, settings.detector.size) {}

std::pair<double, double> FrameProjection::pixel(double u, double v) const {
    const auto [x, y] = m_distortion.recorded((u * m_cosAxis - v * m_sinAxis) / m_pixelSize,
                                              (u * m_sinAxis + v * m_cosAxis) / m_pixelSize);
    return {m_centreX + x, m_centreY + y};
}

}  // namespace vrk
