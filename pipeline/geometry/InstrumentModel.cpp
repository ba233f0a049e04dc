#include "pipeline/geometry/InstrumentModel.h"

#include <Eigen/Geometry>
#include <cmath>

namespace vrk {

PatternPlace PatternPlace::of(const Eigen::Vector3d& relative, double tilt) {
    const double c = std::cos(tilt);
    const double s = std::sin(tilt);
    return {relative.x() * c + relative.z() * s, relative.y(), relative.z() * c - relative.x() * s, tilt};
}

InstrumentModel::Mapping::Mapping(const InstrumentModel& model)
    : m_cosine(model[InstrumentTerm::EllipseCosine]),
      m_sine(model[InstrumentTerm::EllipseSine]),
      m_determinant(1.0 - m_cosine * m_cosine - m_sine * m_sine),
      m_radial(model[InstrumentTerm::Radial]),
      m_squaredHalfWidth(model.m_halfWidth * model.m_halfWidth),
      m_cosTurn(std::cos(model[InstrumentTerm::AxisTurn])),
      m_sinTurn(std::sin(model[InstrumentTerm::AxisTurn])),
      m_curvature(model.m_curvature),
      m_tiltFactor(1.0 + model[InstrumentTerm::TiltScale]),
      m_axis(0.0, std::cos(model[InstrumentTerm::AxisTilt]), std::sin(model[InstrumentTerm::AxisTilt])) {}

Eigen::Vector3d InstrumentModel::Mapping::operator()(const PatternPlace& place) const {
    double u = ((1.0 - m_cosine) * place.u - m_sine * place.v) / m_determinant;
    double v = ((1.0 + m_cosine) * place.v - m_sine * place.u) / m_determinant;
    // The inverse of the radial term to its second order; distortions are of some per cent.
    const double k = m_radial * (u * u + v * v) / m_squaredHalfWidth;
    const double inwards = 1.0 - k + 3.0 * k * k;
    u *= inwards;
    v *= inwards;
    const Eigen::Vector2d onAxis(u * m_cosTurn + v * m_sinTurn, v * m_cosTurn - u * m_sinTurn);
    const double lift = place.w - m_curvature * onAxis.squaredNorm();
    const Eigen::AngleAxisd back(-place.tilt * m_tiltFactor, m_axis);
    return back * Eigen::Vector3d(onAxis.x(), onAxis.y(), lift);
}

}  // namespace vrk
