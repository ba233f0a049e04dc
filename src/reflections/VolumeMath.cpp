#include "reflections/VolumeMath.h"

#include <limits>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "reflections/detail/VoxelGrid.h"

std::atomic<float> VolumeMath::m_zeroCompareValue = 0.0F;

int VolumeMath::getIndex(const VoxMRCData* volume, int x, int y, int z) {
    return VRK::detail::VoxelGrid(volume).index(x, y, z);
}

void VolumeMath::getCoordinates(const VoxMRCData* volume, int index, int& x, int& y, int& z) {
    const VRK::detail::Voxel voxel = VRK::detail::VoxelGrid(volume).voxel(index);
    x = voxel.x;
    y = voxel.y;
    z = voxel.z;
}

short VolumeMath::getValue(const VoxMRCData* volume, int index) {
    const auto sliceSize = static_cast<int>(volume->GetChunkSize());
    const auto position = static_cast<unsigned>(index % sliceSize);
    return volume->GetChunkPointer(static_cast<unsigned>(index / sliceSize))[position];
}

void VolumeMath::setZeroCompareValue(double value) {
    m_zeroCompareValue.store(static_cast<float>(value), std::memory_order_relaxed);
}
