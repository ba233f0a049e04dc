/// \file
/// Intensities for reflections of which only the positions were kept.
#pragma once

#include "VoxCore/DataModel/VoxMRCData.h"
#include "reflections/ReflexVector.h"

namespace vrk {

/// Sets each intensity to the sum of the volume's values within a sphere about the reflection, less the
/// median of the shell of two voxels around it for each voxel; 0 when that is negative. \param reflections in
/// voxel coordinates of the volume \param radius       of the sphere in voxels
void integrateIntensities(const VoxMRCData& volume, ReflexVector& reflections, double radius);

}  // namespace vrk
