/// \file
/// How long a frame records a reflection.
#pragma once

#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// The Gaussian rocking curve of a reflection about the Ewald sphere, averaged over what the crystal or the
/// beam does during a frame. Simulation.h gives the formulas.
class RockingCurve {
public:
    explicit RockingCurve(const SimulationSettings& settings);

    /// Distance from the sphere at which a reflection leaves the frame, 1/Angstrom.
    /// \param speed  change of the distance per radian of the rotation, 1/Angstrom
    /// \param length |g|, 1/Angstrom
    double reach(double speed, double length) const;
    /// Exposures that a frame adds to the reflection's time in the diffracting condition.
    /// \param distance from the sphere in the middle of the frame, 1/Angstrom
    double time(double distance, double speed, double length) const;

private:
    double profile(double distance) const;
    double overRotation(double distance, double halfSweep) const;
    double overPrecession(double distance, double amplitude) const;

    RotationMode m_mode;
    double m_width;
    double m_scale;         ///< exposures that a frame spent on the sphere adds
    double m_halfRotation;  ///< radians
    double m_precession;    ///< radians
};

}  // namespace vrk
