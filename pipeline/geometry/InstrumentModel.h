/// \file
/// How an instrument maps reciprocal space onto patterns, beyond the ideal.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstddef>
#include <optional>

namespace vrk {

/// What may be off in the geometry of an instrument, as small numbers.
enum class InstrumentTerm : std::size_t {
    AxisTurn,       ///< true minus assumed direction of the tilt axis in the frame, radians
    EllipseCosine,  ///< e cos 2p: along the azimuth p lengths grow by 1 + e, across it they shrink by 1 - e
    EllipseSine,    ///< e sin 2p; p from the assumed radial direction x towards the axis y
    Radial,         ///< relative displacement outwards at half a frame's width from the centre
    TiltScale,      ///< true over stated tilt, less 1
    AxisTilt        ///< by which the axis leaves the plane of the frame towards z, radians
};
inline constexpr std::size_t kInstrumentTerms = 6;

/// Terms that are known from elsewhere and are not refined.
using KnownTerms = std::array<std::optional<double>, kInstrumentTerms>;

/// A reflection where a pattern showed it: u across the assumed axis, v along it, w above the plane of the
/// pattern, voxels from the centre of the pattern; and the stated tilt, radians.
struct PatternPlace {
    double u = 0.0;
    double v = 0.0;
    double w = 0.0;
    double tilt = 0.0;

    /// Of a place in the volume, in voxels from its centre: x = u cos t - w sin t, y = v, z = u sin t + w cos
    /// t.
    static PatternPlace of(const Eigen::Vector3d& relative, double tilt);
};

/// The terms applied, from recorded places to reciprocal space: the ellipse is taken out, then the radial
/// term p1 = p (1 + k |p|^2 / R^2), the pattern is turned to the true axis, lifted onto the Ewald sphere and
/// turned back by the true tilt about the true axis.
class InstrumentModel {
public:
    /// \param halfWidth  R, voxels
    /// \param curvature  s lambda / 2 in 1/voxel, s as in EwaldCurvature; 0 for a flat sphere
    /// \param known      has these values; what is not known is 0
    InstrumentModel(double halfWidth, double curvature, const KnownTerms& known = {})
        : m_halfWidth(halfWidth), m_curvature(curvature) {
        for (std::size_t i = 0; i < kInstrumentTerms; ++i)
            m_terms[i] = known[i].value_or(0.0);
    }

    double& operator[](InstrumentTerm term) { return m_terms[static_cast<std::size_t>(term)]; }
    double operator[](InstrumentTerm term) const { return m_terms[static_cast<std::size_t>(term)]; }

    class Mapping;

private:
    double m_halfWidth;
    double m_curvature;
    std::array<double, kInstrumentTerms> m_terms{};
};

/// From places on patterns to reciprocal space. What depends on the terms alone is worked out once.
class InstrumentModel::Mapping {
public:
    explicit Mapping(const InstrumentModel& model);
    /// Relative to the place of 000, voxels.
    Eigen::Vector3d operator()(const PatternPlace& place) const;

private:
    double m_cosine;  ///< components of the ellipse
    double m_sine;
    double m_determinant;
    double m_radial;
    double m_squaredHalfWidth;
    double m_cosTurn;
    double m_sinTurn;
    double m_curvature;
    double m_tiltFactor;
    Eigen::Vector3d m_axis;
};

}  // namespace vrk
