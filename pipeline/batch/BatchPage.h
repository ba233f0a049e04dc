/// \file
/// The page of a batch.
#pragma once

#include <string>

#include "pipeline/batch/Collection.h"

namespace vrk {

/// One file that needs no network and loads nothing: the table of the crystals with small pictures that lead
/// to their reports, the clusters of their cells with the dendrogram, outliers, and axis and distortion over
/// the session. Whatever names and messages hold is text on it.
std::string batchPage(const Collection& collection, const BatchFolder& folder);

}  // namespace vrk
