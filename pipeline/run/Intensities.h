/// \file
/// The intensities of a run: measured on the frames, scaled and merged.
#pragma once

#include "pipeline/base/Session.h"
#include "pipeline/integration/DataReduction.h"
#include "pipeline/integration/Integration.h"
#include "pipeline/run/Indexing.h"
#include "pipeline/run/PreparedSeries.h"
#include "pipeline/run/ReciprocalVolume.h"

namespace vrk {

struct Intensities {
    IntegrationResult integration;
    DataReduction reduction;
};

/// The geometry of the frames as the indexed reflections have it: the conventional cell under the ties of its
/// type, axis, distortion and tilts by the refined instrument, centres as the volume was made with. \param
/// counts  square frames as they were recorded, without hot spots
SeriesGeometry geometryOf(const Indexed& indexed, const ReciprocalVolume& volume, const TiltAxis& axis,
                          const VoxMRCData& counts);

/// Integrates and reduces. Throws Failure as integrate() and reduceData() do.
Intensities measureIntensities(const Indexed& indexed, const ReciprocalVolume& volume, const TiltAxis& axis,
                               const RecordedCounts& counts, const IntensityChoice& choice, Session& session);

}  // namespace vrk
