/// \file
/// How intensities fall off with resolution.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/Merging.h"

namespace vrk {

struct WilsonBin {
    double s2 = 0;  ///< (1 / (2 d))^2 = (sin theta / lambda)^2, mean of the reflections, 1/Angstrom^2
    double lnIntensity = 0;  ///< logarithm of the mean intensity
    int reflections = 0;
};

/// A. J. C. Wilson, Nature 150 (1942) 152, doi:10.1038/150152a0. The scattering factors are not divided out,
/// since the content of the cell is rarely known: the slope is that of the atoms and of their displacements
/// together.
struct WilsonPlot {
    std::vector<WilsonBin> bins;  ///< the innermost first; those without a positive mean are left out
    double b = 0;                 ///< ln I = lnScale - 2 b s2, Angstrom^2; 0 when fewer than three bins tell
    double lnScale = 0;
};

/// Bins of equal numbers of reflections, at least 20 each and at most 20 bins; the line weighs them equally.
WilsonPlot wilsonPlot(std::span<const MergedReflection> merged);

}  // namespace vrk
