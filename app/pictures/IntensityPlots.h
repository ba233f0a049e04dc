/// \file
/// Plots that show how good the intensities are.
#pragma once

#include <filesystem>

#include "pipeline/run/Intensities.h"
#include "visualisation/GnuplotScript.h"

namespace vrk::app {

/// Plots, each with its gnuplot script and data:
///
/// - intensities.png: completeness, I/sigma, R values and CC1/2 by resolution, the Wilson plot, the scale
/// over the
///   frames and how strong the reflections are that each reflection condition forbids;
/// - rocking_curves.png: counts over the tilt with their fitted curves, of the strongest reflections (above)
/// and of
///   others drawn at random (below).
///
/// \param folder  an existing one
/// \returns false when gnuplot is missing or failed; the log says so, scripts and data are there then.
bool writeIntensityPlots(const Intensities& intensities, const std::filesystem::path& folder);

/// \name Panels of a plot
/// @{

/// Three: completeness, mean I/sigma, agreement of equivalents by resolution.
void addShells(GnuplotScript& plot, const MergingStatistics& statistics);
void addWilson(GnuplotScript& plot, const WilsonPlot& wilson);
/// @}

}  // namespace vrk::app
