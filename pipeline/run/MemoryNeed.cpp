#include "pipeline/run/MemoryNeed.h"

#include <algorithm>
#include <cstdint>
#include <span>

#include "foundation/SharedLoop.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"
#include "processing/SamplingGeometry.h"

namespace vrk {
namespace {

constexpr std::uint64_t kVoxel = sizeof(short);
/// Bytes for every pixel of a frame that the steps take beside the frames, as measured: of the whole series,
/// and of each thread.
constexpr std::uint64_t kSharedImages = 32;
constexpr std::uint64_t kImagesOfLane = 24;

std::uint64_t pixelsOf(const mrcH& series) {
    return static_cast<std::uint64_t>(series.nx) * static_cast<std::uint64_t>(series.ny);
}

std::uint64_t bytesOf(const mrcH& series, int copies) {
    return kVoxel * pixelsOf(series) * static_cast<std::uint64_t>(series.nz) *
           static_cast<std::uint64_t>(copies);
}

}  // namespace

void requireMemoryForVolume(const mrcH& series, int copies) {
    const std::span<const float> tilts(
        series.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)].data(),
        static_cast<std::size_t>(series.nz));
    const auto width = static_cast<unsigned>(series.nx);
    const unsigned depth = SamplingGeometry::depthOf(width, tilts);
    requireMemory(
        kVoxel * pixelsOf(series) * depth + bytesOf(series, copies),
        formatted("%d patterns and the volume of %u x %d x %u voxels", series.nz, width, series.ny, depth));
}

void requireMemoryForSeries(const mrcH& series, int copies) {
    mrcH square = series;
    square.nx = square.ny = std::max(series.nx, series.ny);
    const int made = std::max(copies, series.nx == series.ny ? 0 : 1);
    const std::uint64_t images = kSharedImages + kImagesOfLane * VRK::lanes();
    requireMemory(bytesOf(square, made) + images * pixelsOf(square),
                  formatted("the steps on %d patterns of %d x %d pixels", series.nz, series.nx, series.ny));
}

}  // namespace vrk
