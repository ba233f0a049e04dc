/// \file
/// Numbers as people and crystallographic files write them.
#pragma once

#include <string>

namespace vrk {

/// A value with its standard uncertainty in units of the last digit, as "7.1234(12)": the uncertainty has one
/// digit, or two up to 19. Without a positive, finite uncertainty six significant digits.
std::string withUncertainty(double value, double sigma);

}  // namespace vrk
