/// \file
/// Values that are right in another unit. Each check throws Failure (Usage) that names the likely one.
#pragma once

#include <array>
#include <optional>

namespace vrk {

/// Refuses a pixel size with which every edge of a cell is below 1 or above 2000 Angstrom.
/// \param edges      of the direct cell in Angstrom, as they follow from the pixel size
/// \param pixelSize  1/m per pixel
void refuseImpossibleScale(const std::array<double, 3>& edges, double pixelSize);

/// Refuses a high tension that no microscope has, and one that is more than five times off what the series
/// states.
/// \param kiloVolts  as given
/// \param stated     by the series, where it does, kV
void refuseImpossibleVoltage(double kiloVolts, std::optional<double> stated = std::nullopt);

/// Refuses angles of a cell in degrees that are all so small that they must be radians.
void refuseRadians(const std::array<double, 3>& degrees);

}  // namespace vrk
