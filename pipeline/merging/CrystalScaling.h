/// \file
/// Crystals on one scale.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Observation.h"

namespace vrk {

/// I(observed) = exp(k - 2 b (1 / (2 d))^2) I for all observations of a crystal.
struct CrystalScale {
    double k = 0;
    double b = 0;         ///< square Angstrom
    double sigmaOfK = 0;  ///< standard uncertainties
    double sigmaOfB = 0;  ///< square Angstrom
    int common = 0;       ///< observations with equivalents in other crystals

    /// What an observation at this spacing is to be divided by.
    double factor(double spacing) const;
};

/// Fits scale and relative B of each crystal to the mean of the equivalents in all others, robustly (Tukey's
/// biweight), in turn until nothing changes. The b of a crystal is held near zero with 5 square Angstrom, as
/// far as its observations leave it open. The means of k and of b over the crystals are zero; a crystal that
/// shares nothing with the others has the scale that makes it as bright as they are at its resolution.
/// \param observations  of all crystals, in common indices; source is the number of the crystal
std::vector<CrystalScale> scaleCrystals(std::span<const Observation> observations, std::size_t crystals,
                                        const LaueRotations& rotations);

/// Divides intensities and uncertainties by the crystals' scales.
void applyScales(std::span<Observation> observations, std::span<const CrystalScale> scales);

}  // namespace vrk
