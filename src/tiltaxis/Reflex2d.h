/// \file
/// A reflection in a single pattern.
#pragma once

#include "VRKCoreExport.h"
#include "reflections/Reflex.h"

/// A spot of one pattern of a tilt series. Its position as a Reflex is (u, v, 0) until
/// ReflectionTransformation::transformTo3DPositions() gives it the one in reciprocal space.
///
/// Owns nothing beyond its base, so a ReflexVector frees it as it frees any reflection.
class VRKCORE_EXPORT Reflex2d final : public Reflex {
public:
    /// \param pattern      number of the pattern in its series
    /// \param tiltDegrees  tilt angle of the pattern
    /// \param u            distance from the pattern's centre to the right, pixels
    /// \param v            distance from the pattern's centre downwards, pixels
    Reflex2d(int pattern, double tiltDegrees, double u, double v);

    int getPattern() const { return m_pattern; }
    double getTilt() const { return m_tilt; }
    double getU() const { return m_u; }
    double getV() const { return m_v; }
    /// Largest value of the smoothed spot over its surroundings, counts.
    double getPeakHeight() const { return m_peakHeight; }
    /// Height that a spot had to reach here, counts.
    double getThreshold() const { return m_threshold; }

    void setInPlane(double u, double v);
    void setPosition(double x, double y, double z);
    void setPeakHeight(double height) { m_peakHeight = height; }
    void setThreshold(double threshold) { m_threshold = threshold; }

private:
    int m_pattern;
    double m_tilt;
    double m_u;
    double m_v;
    double m_peakHeight = 0.0;
    double m_threshold = 0.0;
};
