/// \file
/// The reciprocal volume of a series with what is needed to read it.
#pragma once

#include <Eigen/Core>
#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "pipeline/base/Session.h"
#include "pipeline/run/PreparedSeries.h"
#include "processing/SamplingGeometry.h"

namespace vrk {

struct ReciprocalVolume {
    std::unique_ptr<VoxMRCData> voxels;
    SamplingGeometry sampling;  ///< which pixels each voxel was made of
    RadialNoise noise;          ///< of the frames
    SeriesFacts facts;

    Eigen::Vector3d centre() const;  ///< voxels
};

/// \param series  its axis along y; not changed
/// Throws Failure when there is no memory.
ReciprocalVolume reconstruct(const CentredSeries& series, Session& session);

}  // namespace vrk
