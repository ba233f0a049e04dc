/// \file
/// What merging made of crystals, for people.
#pragma once

#include <ostream>

#include "pipeline/merging/CrystalMerge.h"

namespace vrk::app {

/// The data set in a few lines, then its shells and its crystals as tables.
void printMerge(std::ostream& out, const CrystalMerge& merge);

}  // namespace vrk::app
