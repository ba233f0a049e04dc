/// \file
/// How much each crystal does for the data set of all.
#pragma once

#include <span>
#include <vector>

#include "pipeline/integration/LaueGroup.h"
#include "pipeline/integration/Observation.h"

namespace vrk {

/// The correlation of halves of the crystals, and what each crystal adds to it.
struct CrystalAgreement {
    double ccHalf = 0;
    /// By crystal: ccHalf less that without the crystal; negative for one that spoils the data.
    std::vector<double> delta;
};

/// G. Assmann, W. Brehm and K. Diederichs, J. Appl. Cryst. 49 (2016) 1021, doi:10.1107/S1600576716005471, on
/// the intensities of the crystals: the equivalents of a crystal count as its one value, so that crystals are
/// compared with one another and not with themselves, and values have the weights of their uncertainties, so
/// that a dim crystal is none that spoils anything. Mean over shells of equal numbers of reflections.
/// \param observations  scaled, in common indices; source is the number of the crystal; outliers are left out
CrystalAgreement crystalAgreement(std::span<const Observation> observations, std::size_t crystals,
                                  const LaueRotations& rotations);

}  // namespace vrk
