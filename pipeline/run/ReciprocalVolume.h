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
    std::vector<double> tilts = {};           ///< of the patterns, degrees
    std::vector<PatternCentre> centres = {};  ///< of the patterns in the frames as they came, pixels
    RecordedPixels recorded = {};             ///< of the patterns before they were rotated
    double rotation = 0.0;                    ///< by which they were turned, degrees

    /// Whether the spots of a reflection touched the border of the recorded part of their patterns.
    /// \param position  of its samples, voxels; \p tilt at which it was seen, radians
    bool isCut(const Eigen::Vector3d& position, double tilt) const;
    Eigen::Vector3d centre() const;  ///< voxels
    /// Where the frames show a place of the volume, from the direct beam, pixels: x to the right, y down.
    /// \param fromOrigin  voxels \param tilt  radians
    Eigen::Vector2d onFrame(const Eigen::Vector3d& fromOrigin, double tilt) const;
};

/// \param series  its axis along y; not changed
/// Throws Failure when there is no memory.
ReciprocalVolume reconstruct(const CentredSeries& series, Session& session);

/// The same of a series whose axis lies elsewhere and whose frames have the distortion that is known of them:
/// rotate() and reconstruct() without the rotated frames in between.
ReciprocalVolume reconstructTurned(const CentredSeries& series, const TiltAxis& axis, Session& session);

}  // namespace vrk
