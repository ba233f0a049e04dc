#include "pipeline/run/ReciprocalVolume.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>
#include <utility>

#include "pipeline/base/LibraryStage.h"
#include "processing/VoxMRCstemProcessing.h"

namespace vrk {

Eigen::Vector3d ReciprocalVolume::centre() const {
    return 0.5 *
           Eigen::Vector3d(voxels->GetWidth() - 1.0, voxels->GetHeight() - 1.0, voxels->GetDepth() - 1.0);
}

bool ReciprocalVolume::isCut(const Eigen::Vector3d& position, double tilt) const {
    constexpr double kReach = 2.5;  // pixels, of a spot
    if (recorded.empty() || tilts.empty()) return false;
    // The volume may be of the middle of the patterns.
    const double middle = 0.5 * (recorded.width() - 1.0);
    const Eigen::Vector2d place = onFrame(position - centre(), tilt);
    const double x = middle + place.x();
    const double y = middle + place.y();
    const auto next = std::lower_bound(tilts.begin(), tilts.end(), tilt * 180.0 / std::numbers::pi);
    const auto upper =
        std::min(static_cast<unsigned>(next - tilts.begin()), static_cast<unsigned>(tilts.size()) - 1);
    const unsigned lower = upper > 0 ? upper - 1 : 0;
    return recorded.isCut(lower, x, y, kReach) || recorded.isCut(upper, x, y, kReach);
}

Eigen::Vector2d ReciprocalVolume::onFrame(const Eigen::Vector3d& fromOrigin, double tilt) const {
    const double u = fromOrigin.x() * std::cos(tilt) + fromOrigin.z() * std::sin(tilt);
    const double v = fromOrigin.y();
    const double angle = rotation * std::numbers::pi / 180.0;
    const auto [x, y] = facts.distortion.recorded(std::cos(angle) * u - std::sin(angle) * v,
                                                  std::sin(angle) * u + std::cos(angle) * v);
    return {x, y};
}

namespace {

/// \param rotation  of the frames, degrees
ReciprocalVolume volumeOf(const CentredSeries& series, std::unique_ptr<VoxMRCData> voxels, double rotation) {
    const mrcH& header = series.frames->m_Header;
    const std::span<const float> tilts(
        header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)].data(),
        static_cast<std::size_t>(header.nz));
    SamplingGeometry sampling(voxels->GetWidth(), tilts, voxels->GetDepth());
    return {std::move(voxels), std::move(sampling), series.noise, series.facts, {tilts.begin(), tilts.end()},
            series.centres,    series.recorded,     rotation};
}

}  // namespace

ReciprocalVolume reconstruct(const CentredSeries& series, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    return volumeOf(
        series,
        runStage(
            session, "reconstruction",
            [&] { return processing.recoByAngle(series.frames.get(), series.facts.pixelSize, 0, true); }),
        series.rotation);
}

ReciprocalVolume reconstructTurned(const CentredSeries& series, const TiltAxis& axis, Session& session) {
    VoxMRCstemProcessing processing;
    processing.registerObserver(&session.progress());
    return volumeOf(series,
                    runStage(session, "reconstruction",
                             [&] {
                                 return processing.recoTurned(series.frames.get(), axis.angle,
                                                              series.facts.distortion,
                                                              series.facts.pixelSize);
                             }),
                    axis.angle);
}

}  // namespace vrk
