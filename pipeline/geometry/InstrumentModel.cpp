#include "pipeline/geometry/InstrumentModel.h"

#include <Eigen/Geometry>
#include <cmath>

namespace vrk {

PatternPlace PatternPlace::of(const Eigen::Vector3d& relative, double tilt) {
    const double c = std::cos(tilt);
    const double s = std::sin(tilt);
    return {relative.x() * c + relative.z() * s, relative.y(), relative.z() * c - relative.x() * s, tilt};
}

Eigen::Vector3d InstrumentModel::toReciprocal(const PatternPlace& place) const {
    const InstrumentModel& term = *this;
    const double c = term[InstrumentTerm::EllipseCosine];
    const double s = term[InstrumentTerm::EllipseSine];
    const double determinant = 1.0 - c * c - s * s;
    double u = ((1.0 - c) * place.u - s * place.v) / determinant;
    double v = ((1.0 + c) * place.v - s * place.u) / determinant;
    // The inverse of the radial term to its second order; distortions are of some per cent.
    const double k = term[InstrumentTerm::Radial] * (u * u + v * v) / (m_halfWidth * m_halfWidth);
    const double inwards = 1.0 - k + 3.0 * k * k;
    u *= inwards;
    v *= inwards;
    const double turn = term[InstrumentTerm::AxisTurn];
    const Eigen::Vector2d onAxis(u * std::cos(turn) + v * std::sin(turn),
                                 v * std::cos(turn) - u * std::sin(turn));
    const double lift = place.w - m_curvature * onAxis.squaredNorm();
    const double axisTilt = term[InstrumentTerm::AxisTilt];
    const double tilt = place.tilt * (1.0 + term[InstrumentTerm::TiltScale]);
    const Eigen::AngleAxisd back(-tilt, Eigen::Vector3d(0.0, std::cos(axisTilt), std::sin(axisTilt)));
    return back * Eigen::Vector3d(onAxis.x(), onAxis.y(), lift);
}

}  // namespace vrk
