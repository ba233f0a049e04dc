/// \file
/// How far out a series has measured anything.
#pragma once

#include <span>

#include "pipeline/integration/Integration.h"

namespace vrk {

/// The spacing (Angstrom) beyond which the mean square of I / sigma is less than a quarter above that of
/// noise. The products of I / sigma of Friedel mates, which share no noise and cannot be fooled by a
/// background that is a little off, each factor limited to 5, are summed from the centre outwards less 0.25
/// each; the sum is largest at the limit. Weak reflections up to there carry information (P. A. Karplus and
/// K. Diederichs, Science 336 (2012) 1030, doi:10.1126/science.1218231). Without a hundred pairs the squares
/// of single reflections less 1 stand in; 0 without good reflections.
double resolutionOf(std::span<const IntegratedReflection> reflections);

}  // namespace vrk
