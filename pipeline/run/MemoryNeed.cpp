#include "pipeline/run/MemoryNeed.h"

#include <cstdint>
#include <span>

#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"
#include "processing/SamplingGeometry.h"

namespace vrk {
namespace {

constexpr std::uint64_t kVoxel = sizeof(short);

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
    requireMemory(bytesOf(series, copies),
                  formatted("the steps on %d patterns of %d x %d pixels", series.nz, series.nx, series.ny));
}

}  // namespace vrk
