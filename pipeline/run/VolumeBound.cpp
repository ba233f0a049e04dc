#include "pipeline/run/VolumeBound.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <span>
#include <utility>
#include <vector>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NumberText.h"
#include "processing/SamplingGeometry.h"

namespace vrk {
namespace {

constexpr int kSmallest = 64;
constexpr unsigned kDirections = 60;
/// Pixels stand out by so many standard deviations of their ring, and of a count.
constexpr double kStandsOut = 10.0;
constexpr double kSpotsWithin = 0.995;
constexpr double kMargin = 1.06;

/// The largest edge, by steps of two, of a volume whose voxels can be numbered.
int largestEdge(int edge, std::span<const float> tilts) {
    const auto voxels = [&](int size) {
        const auto width = static_cast<unsigned>(size);
        return std::uint64_t{width} * width * SamplingGeometry::depthOf(width, tilts);
    };
    while (edge > kSmallest && voxels(edge) > std::numeric_limits<std::int32_t>::max())
        edge -= 2;
    return edge;
}

/// How many pixels of each ring stand out.
std::vector<std::uint32_t> brightPixels(const short* pixels, unsigned size) {
    const double middle = 0.5 * (size - 1.0);
    const std::size_t rings = size / 2;
    std::vector<std::vector<short>> values(rings);
    for (unsigned y = 0; y < size; ++y)
        for (unsigned x = 0; x < size; ++x, ++pixels) {
            const auto ring = static_cast<std::size_t>(std::hypot(x - middle, y - middle));
            if (ring < rings) values[ring].push_back(*pixels);
        }
    std::vector<std::uint32_t> bright(rings);
    for (std::size_t ring = 0; ring < rings; ++ring) {
        std::vector<short> deviations = values[ring];
        for (short& value : deviations)
            value = static_cast<short>(std::abs(value));
        const double limit = kStandsOut * std::max(1.0, medianOf(std::move(deviations)) / 0.6745);
        bright[ring] = static_cast<std::uint32_t>(
            std::count_if(values[ring].begin(), values[ring].end(), [&](short v) { return v > limit; }));
    }
    return bright;
}

std::unique_ptr<VoxMRCData> middleOf(const VoxMRCData& frames, unsigned size) {
    std::unique_ptr<VoxMRCData> result(VoxMRCData::Create3D(size, size, frames.GetDepth()));
    if (!result) throw Failure("there is no memory for the middle of the frames; bin the series");
    result->m_Header = frames.m_Header;
    mrcH& header = result->m_Header;
    header.nx = header.mx = header.ny = header.my = static_cast<std::int32_t>(size);
    const std::size_t edge = frames.GetWidth();
    const std::size_t border = (edge - size) / 2;
    VRK::shareItems(frames.GetDepth(), [&](std::size_t frame, std::size_t) {
        const short* from = frames.GetChunkPointer(static_cast<unsigned>(frame)) + border * edge + border;
        short* to = result->GetChunkPointer(static_cast<unsigned>(frame));
        for (unsigned row = 0; row < size; ++row, from += edge, to += size)
            std::copy_n(from, size, to);
    });
    return result;
}

}  // namespace

double radiusOfSpots(const VoxMRCData& frames) {
    const unsigned depth = frames.GetDepth();
    const unsigned step = std::max(1U, depth / kDirections);
    std::vector<std::vector<std::uint32_t>> samples((depth + step - 1) / step);
    VRK::shareItems(samples.size(), [&](std::size_t i, std::size_t) {
        samples[i] = brightPixels(frames.GetChunkPointer(static_cast<unsigned>(i) * step), frames.GetWidth());
    });
    std::vector<std::uint64_t> bright(frames.GetWidth() / 2);
    for (const std::vector<std::uint32_t>& sample : samples)
        std::transform(sample.begin(), sample.end(), bright.begin(), bright.begin(), std::plus<>());
    const double all = static_cast<double>(std::accumulate(bright.begin(), bright.end(), std::uint64_t{0}));
    double within = 0.0;
    for (std::size_t ring = 0; ring < bright.size(); ++ring) {
        within += static_cast<double>(bright[ring]);
        if (all > 0.0 && within >= kSpotsWithin * all) return static_cast<double>(ring + 1);
    }
    return 0.0;
}

CentredSeries bounded(CentredSeries series, std::optional<int> wanted, Session& session) {
    const mrcH& header = series.frames->m_Header;
    const int edge = header.nx;
    const std::span<const float> tilts(
        header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)].data(),
        static_cast<std::size_t>(header.nz));
    const int most = largestEdge(edge, tilts);
    int size = std::min(most, wanted.value_or(edge));
    if (!wanted && most < edge)
        if (const double radius = kMargin * radiusOfSpots(*series.frames); radius > 0.0)
            size = std::min(size, 2 * static_cast<int>(std::ceil(radius)));
    // Half a pixel would have to be interpolated.
    size = std::max(size + (edge - size) % 2, std::min(edge, kSmallest));
    if (size >= edge) return series;
    series.frames = middleOf(*series.frames, static_cast<unsigned>(size));
    series.noise = RadialNoise(*series.frames);
    session.warn(formatted("the volume is built of the inner %d of %d pixels, to %.3g Angstrom", size, edge,
                           2e10 / (size * series.facts.pixelSize)) +
                 (wanted ? "" : ", where the spots are or voxels can be numbered (--volume-size)"));
    return series;
}

}  // namespace vrk
