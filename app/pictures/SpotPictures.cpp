#include "pictures/SpotPictures.h"

#include <algorithm>
#include <cmath>

#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr std::size_t kFrames = 5;
/// Predicted spots with less than this share of their full brightness are not drawn.
constexpr float kDrawnShare = 0.05F;

/// A frame without the halo of the direct beam.
PlaneImage withoutHalo(const VoxMRCData& frames, std::size_t frame, const RadialShape& halo,
                       const FramePose& pose) {
    PlaneImage image(frames.m_Header.nx, frames.m_Header.ny);
    const short* pixels = frames.GetChunkPointer(static_cast<unsigned>(frame));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const double dx = x - pose.centreX, dy = y - pose.centreY;
            image.at(x, y) = pixels[static_cast<std::ptrdiff_t>(y) * image.width + x] -
                             halo.at(static_cast<float>(dx * dx + dy * dy));
        }
    return image;
}

}  // namespace

void writeSpotPicture(const RunResult& result, const PictureNotes& notes, std::size_t frame,
                      const std::filesystem::path& folder) {
    const IntegrationResult& integration = result.intensities->integration;
    const SeriesGeometry& geometry = integration.fit.geometry;
    const FramePose& pose = geometry.frames[frame];
    PictureSheet sheet(withoutHalo(*result.counts.frames, frame, integration.shape, pose));
    ImageOverlay& overlay = sheet.overlay();
    const SpotPrediction& prediction = integration.prediction;
    for (std::uint32_t i = prediction.frameStart[frame]; i < prediction.frameStart[frame + 1]; ++i) {
        const PredictedSpot& spot = prediction.spots[prediction.byFrame[i]];
        if (spot.share >= kDrawnShare)
            overlay.nodes.push_back(
                {sheet.x(spot.x), sheet.y(spot.y), std::max(4.0, integration.extent.radius * sheet.zoom())});
    }
    for (const ObservedPlace& place : integration.places)
        if (place.frame == frame) overlay.crosses.push_back({sheet.x(place.x), sheet.y(place.y)});
    const double centreX = sheet.x(pose.centreX), centreY = sheet.y(pose.centreY);
    constexpr double kAxisLength = 0.3 * PictureSheet::kEdge;
    overlay.lines.push_back({centreX, centreY, centreX - kAxisLength * std::sin(geometry.axisAngle),
                             centreY + kAxisLength * std::cos(geometry.axisAngle),
                             formatted("tilt axis %.2f\u00b0", geometry.axisAngle / kDegree)});
    sheet.setScale({centreX, centreY, 1.0 / sheet.zoom()}, notes.pixelSize);
    sheet.describe(formatted("frame %zu, tilt %.2f\u00b0", frame + 1, pose.tilt / kDegree), notes,
                   "rings: spots that the refined geometry predicts; crosses: spots that were observed");
    sheet.save(folder / formatted("frame_%03zu.png", frame + 1));
}

std::vector<std::size_t> framesToDraw(const RunResult& result) {
    const std::size_t count = result.intensities->integration.fit.geometry.frames.size();
    std::vector<std::size_t> frames(std::min(kFrames, count));
    for (std::size_t i = 0; i < frames.size(); ++i)
        frames[i] = (2 * i + 1) * count / (2 * frames.size());
    return frames;
}

}  // namespace vrk::app
