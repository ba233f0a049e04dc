#include "pictures/SpotPictures.h"

#include <algorithm>
#include <cmath>

#include "pictures/Pictures.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/NumberText.h"

namespace vrk::app {
namespace {

constexpr std::size_t kFrames = 5;
/// Predicted spots with less than this share of their full brightness are not drawn.
constexpr float kDrawnShare = 0.05F;
/// Smaller frames are enlarged, so that spots do not drown in their rings.
constexpr int kLegible = 1000;

/// A frame over the halo of the direct beam, every pixel of it drawn as zoom x zoom.
class FramePicture {
public:
    FramePicture(const VoxMRCData& frames, std::size_t frame, const RadialShape& halo, const FramePose& pose)
        : m_zoom(std::max(1, (kLegible + frames.m_Header.nx - 1) / std::max(frames.m_Header.nx, 1))),
          m_image(frames.m_Header.nx * m_zoom, frames.m_Header.ny * m_zoom) {
        const short* pixels = frames.GetChunkPointer(static_cast<unsigned>(frame));
        for (int y = 0; y < m_image.height; ++y)
            for (int x = 0; x < m_image.width; ++x) {
                const int column = x / m_zoom, row = y / m_zoom;
                const double dx = column - pose.centreX, dy = row - pose.centreY;
                m_image.at(x, y) = pixels[static_cast<std::ptrdiff_t>(row) * frames.m_Header.nx + column] -
                                   halo.at(static_cast<float>(dx * dx + dy * dy));
            }
    }

    /// \param radius  pixels of the frame
    void ring(double x, double y, double radius) {
        m_overlay.nodes.push_back({place(x), place(y), std::max(4.0, radius * m_zoom)});
    }
    void cross(double x, double y) { m_overlay.crosses.push_back({place(x), place(y)}); }
    /// \param angle  of the axis from y, radians
    void axis(double x, double y, double angle) {
        const double length = 0.3 * std::min(m_image.width, m_image.height);
        m_overlay.lines.push_back({place(x), place(y), place(x) - length * std::sin(angle),
                                   place(y) + length * std::cos(angle),
                                   formatted("axis %.2f", angle / kDegree)});
    }
    void save(const std::string& title, const std::filesystem::path& path) {
        m_overlay.title = title;
        savePicture(m_image, m_overlay, path);
    }

private:
    double place(double pixel) const { return (pixel + 0.5) * m_zoom - 0.5; }

    int m_zoom;
    PlaneImage m_image;
    ImageOverlay m_overlay;
};

void drawFrame(const RunResult& result, std::size_t frame, const std::filesystem::path& path) {
    const IntegrationResult& integration = result.intensities->integration;
    const SeriesGeometry& geometry = integration.fit.geometry;
    const FramePose& pose = geometry.frames[frame];
    FramePicture picture(*result.counts.frames, frame, integration.shape, pose);
    const SpotPrediction& prediction = integration.prediction;
    for (std::uint32_t i = prediction.frameStart[frame]; i < prediction.frameStart[frame + 1]; ++i) {
        const PredictedSpot& spot = prediction.spots[prediction.byFrame[i]];
        if (spot.share >= kDrawnShare) picture.ring(spot.x, spot.y, integration.extent.radius);
    }
    for (const ObservedPlace& place : integration.places)
        if (place.frame == frame) picture.cross(place.x, place.y);
    picture.axis(pose.centreX, pose.centreY, geometry.axisAngle);
    picture.save(
        formatted("frame %zu, tilt %.2f: rings predicted, crosses observed", frame + 1, pose.tilt / kDegree),
        path);
}

}  // namespace

std::vector<std::filesystem::path> writeSpotPictures(const RunResult& result,
                                                     const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> written;
    const std::size_t count = result.intensities->integration.fit.geometry.frames.size();
    const std::size_t drawn = std::min(kFrames, count);
    for (std::size_t i = 0; i < drawn; ++i) {
        const std::size_t frame = (2 * i + 1) * count / (2 * drawn);
        written.push_back(folder / formatted("frame_%03zu.png", frame + 1));
        drawFrame(result, frame, written.back());
    }
    return written;
}

}  // namespace vrk::app
