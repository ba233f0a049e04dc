/// \file
/// A measured intensity on its way to a unique one.
#pragma once

#include <cstdint>

#include "pipeline/latticesearch/Lattice.h"

namespace vrk {

struct Observation {
    Indices hkl{};
    double intensity = 0;
    double sigma = 0;
    double spacing = 0;  ///< d, Angstrom
    double frame = 0;    ///< at which it was measured, with fraction
    double scale = 1;    ///< by which intensity and sigma were divided
    bool outlier = false;
    std::uint32_t source = 0;  ///< number in the list that it came from
};

}  // namespace vrk
