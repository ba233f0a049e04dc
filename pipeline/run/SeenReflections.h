/// \file
/// The reflections of a run in one list.
#pragma once

#include <vector>

#include "pipeline/formats/ReflectionTable.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// a*, b*, c* of the conventional cell as columns, in the volume frame, 1/Angstrom, refined freely.
Eigen::Matrix3d reciprocalBase(const Indexed& indexed);

/// Those that were seen in the volume, in the order of peaks.txt, then those that were measured on the frames
/// alone. A reflection near the nodes of several crystals counts to the nearest. Pieces of one reflection
/// share its measured intensity.
std::vector<ListedReflection> listedReflections(const RunResult& result);

}  // namespace vrk
