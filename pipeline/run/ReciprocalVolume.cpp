#include "pipeline/run/ReciprocalVolume.h"

#include <span>
#include <utility>

#include "pipeline/base/LibraryStage.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

Eigen::Vector3d ReciprocalVolume::centre() const {
    return 0.5 *
           Eigen::Vector3d(voxels->GetWidth() - 1.0, voxels->GetHeight() - 1.0, voxels->GetDepth() - 1.0);
}

ReciprocalVolume reconstruct(const CentredSeries& series, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    std::unique_ptr<VoxMRCData> voxels = runStage(session, "reconstruction", [&] {
        return processing.recoByAngle(series.frames.get(), series.facts.pixelSize, 0, true);
    });
    const mrcH& header = series.frames->m_Header;
    const std::span<const float> tilts(
        header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)].data(),
        static_cast<std::size_t>(header.nz));
    SamplingGeometry sampling(voxels->GetWidth(), tilts, voxels->GetDepth());
    return {std::move(voxels), std::move(sampling), series.noise, series.facts};
}

}  // namespace vrk
