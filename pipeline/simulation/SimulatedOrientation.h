/// \file
/// How a simulated crystal lies in the volume.
#pragma once

#include "pipeline/simulation/SimulatedCrystal.h"
#include "pipeline/simulation/SimulationSettings.h"

namespace vrk {

/// The rotation from the crystal's frame to the volume's: as given, along the given directions, or random.
/// Throws Failure (usage) when a direction is zero or two exclude each other.
Matrix3 orientationOf(const SimulatedCrystal& crystal, const OrientationSettings& settings,
                      std::uint64_t seed);

}  // namespace vrk
