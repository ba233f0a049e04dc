#include <algorithm>
#include <cmath>
#include <new>

#include "reflections/VolumeMath.h"
#include "reflections/detail/RegionGrower.h"

namespace VRK::detail {
namespace {

std::vector<const short*> slicesOf(const VoxMRCData& volume) {
    std::vector<const short*> slices(volume.GetChunkCount());
    for (unsigned z = 0; z < volume.GetChunkCount(); ++z)
        slices[z] = volume.GetChunkPointer(z);
    return slices;
}

}  // namespace

int smallestForeground(float threshold) {
    if (threshold > 32767.0f) return 32768;
    return threshold > -32768.0f ? static_cast<int>(std::ceil(threshold)) : -32768;
}

VoxelFlags::VoxelFlags(std::size_t voxels)
    : m_words(static_cast<std::uint64_t*>(std::calloc(voxels / 64 + 1, sizeof(std::uint64_t)))) {
    if (!m_words) throw std::bad_alloc();
}

RegionGrower::RegionGrower(const VoxMRCData& volume, const VoxelGrid& grid)
    : m_grid(grid),
      m_slices(slicesOf(volume)),
      m_foregroundLimit(smallestForeground(VolumeMath::getZeroCompareValue())),
      m_taken(static_cast<std::size_t>(grid.voxelCount())) {}

Region& RegionGrower::grow(int start) {
    const int rowSize = m_grid.extentY();
    const int sliceSize = m_grid.extentX() * rowSize;
    const Voxel last = {m_grid.extentX() - 1, m_grid.extentY() - 1, m_grid.extentZ() - 1};
    std::vector<int>& queue = m_region.voxels;
    queue.assign(1, start);
    m_taken.set(start);
    for (std::size_t next = 0; next < queue.size(); ++next) {
        const int index = queue[next];
        const Voxel voxel = m_grid.voxel(index);
        const int position = index - voxel.z * sliceSize;
        const short* const* slice = m_slices.data() + voxel.z;
        const short* here = *slice + position;
        // A voxel's place in the queue is its place in the sums, so it can be measured when its turn comes.
        if (next == 0)
            startMeasuring(voxel, *here);
        else
            measure(voxel, *here);
        if (voxel.x > 0) tryVoxel(index - rowSize, here[-rowSize]);
        if (voxel.x < last.x) tryVoxel(index + rowSize, here[rowSize]);
        if (voxel.y > 0) tryVoxel(index - 1, here[-1]);
        if (voxel.y < last.y) tryVoxel(index + 1, here[1]);
        if (voxel.z > 0) tryVoxel(index - sliceSize, slice[-1][position]);
        if (voxel.z < last.z) tryVoxel(index + sliceSize, slice[1][position]);
    }
    return m_region;
}

inline void RegionGrower::tryVoxel(int index, short value) {
    if (value < m_foregroundLimit || m_taken.test(index)) return;
    m_taken.set(index);
    m_region.voxels.push_back(index);
}

void RegionGrower::startMeasuring(const Voxel& voxel, short value) {
    m_region.sums = {};
    m_region.weightedSums = {};
    m_region.sumOfValues = 0.0f;
    m_region.minValue = m_region.maxValue = static_cast<float>(value);
    m_region.brightest = m_region.lowest = m_region.highest = voxel;
    measure(voxel, value);
}

inline void RegionGrower::measure(const Voxel& voxel, short value) {
    Region& r = m_region;
    const double x = voxel.x;
    const double y = voxel.y;
    const double z = voxel.z;
    r.sums[0] += x;
    r.sums[1] += y;
    r.sums[2] += z;
    r.weightedSums[0] += value * x;
    r.weightedSums[1] += value * y;
    r.weightedSums[2] += value * z;
    r.lowest = {std::min(r.lowest.x, voxel.x), std::min(r.lowest.y, voxel.y), std::min(r.lowest.z, voxel.z)};
    r.highest = {std::max(r.highest.x, voxel.x), std::max(r.highest.y, voxel.y),
                 std::max(r.highest.z, voxel.z)};
    const auto level = static_cast<float>(value);
    r.sumOfValues += level;
    r.minValue = std::min(r.minValue, level);
    if (level > r.maxValue) {
        r.maxValue = level;
        r.brightest = voxel;
    }
}

void sortAscending(std::vector<int>& values) {
    constexpr std::size_t worthwhile = 4096;
    if (values.size() < worthwhile) {
        std::sort(values.begin(), values.end());
        return;
    }
    constexpr unsigned digitBits = 11;
    constexpr unsigned digitMask = (1U << digitBits) - 1;
    std::vector<int> sorted(values.size());
    for (unsigned shift = 0; shift < 31; shift += digitBits) {
        std::array<std::size_t, digitMask + 2> begin{};
        for (const int value : values)
            ++begin[((static_cast<unsigned>(value) >> shift) & digitMask) + 1];
        for (std::size_t digit = 1; digit < begin.size(); ++digit)
            begin[digit] += begin[digit - 1];
        for (const int value : values)
            sorted[begin[(static_cast<unsigned>(value) >> shift) & digitMask]++] = value;
        values.swap(sorted);
    }
}

}  // namespace VRK::detail
