/// \file
/// Simulated tilt series of kinematical electron diffraction patterns, with the truth they were made from.
///
/// Frames and signs. The volume frame has x along the image's radial direction at zero tilt, y along the tilt
/// axis and z so that a point (u, v) of the pattern at tilt t lies at (u cos t, v, u sin t). The plane of
/// that pattern has the normal n = (-sin t, 0, cos t). A pattern does not show this plane but the Ewald
/// sphere that touches it in the origin: a reciprocal point g is on the sphere when its distance
///
///     s = g . n - handedness * wavelength * |g|^2 / 2
///
/// is zero. A reflection is recorded where its projection along n falls, (u, v) = (gx cos t + gz sin t, gy):
/// behind the objective lens the distance from the centre goes with the sine of the scattering angle, so the
/// projection is exact. In the frame the radial direction is (cos a, sin a) and the axis (-sin a, cos a) in
/// pixel coordinates (x to the right, y down the file), where a is the angle of the tilt axis, and the centre
/// is at (size - 1) / 2 plus offset, drift and steps. A tilt axis that leaves the plane of the frame by an
/// angle p is (0, cos p, sin p) in place of y: g turns about it by t, and n is z.
///
/// Counts follow the time in the diffracting condition. A reflection adds
///
///     I * e * (w0 / w) * < exp(-s^2 / (2 w^2)) >
///
/// to a frame, with its intensity I, the frame's exposure e, the rocking width w and w0 = 0.0025 1/Angstrom.
/// The mean is taken over the rotation of a continuous frame, over the precession circle, or at the tilt of a
/// stepwise frame alone. A broader rocking curve spreads the same counts over more time. At constant speed
/// the exposure of a continuous frame is its rotation in degrees: finer frames share the counts of a pass,
/// which are I w0 sqrt(2 pi) / |u| times the degrees in a radian, whatever the step. 1 / |u| is the Lorentz
/// factor of a rotation about y. Background and beam are exposed alike.
///
/// Intensities are scaled so that the 99.5th percentile of all reflections has a spot of the given peak
/// height after an exposure of 1 on the sphere at the rocking width w0. With CountModel::Sphere this holds
/// in each frame, whatever its rotation and the rocking width are.
#pragma once

#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VoxProgressObserver.h"
#include "pipeline/simulation/SimulationSettings.h"
#include "pipeline/simulation/SimulationTruth.h"

namespace vrk {

struct SimulatedSeries {
    std::unique_ptr<VoxMRCData> series;  ///< a tilt series with complete headers, x fastest in a slice
    SimulationTruth truth;
};

/// The same settings always give the same series. Progress is counted in frames; a cancelled simulation
/// returns a null series. Throws Failure (usage) when the settings contradict each other.
SimulatedSeries simulateSeries(const SimulationSettings& settings, VoxProgressObserver* progress = nullptr);

}  // namespace vrk
