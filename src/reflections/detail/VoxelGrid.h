/// \file
/// The numbering of the voxels of a volume, as VolumeMath defines it, with the shape held ready.
#pragma once

#include <cstdint>
#include <limits>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace VRK::detail {

struct Voxel {
    int x = 0;
    int y = 0;
    int z = 0;
    bool operator==(const Voxel&) const = default;
};

class VoxelGrid {
public:
    /// Without extent for null and for an array that is not stored by slice in three dimensions.
    explicit VoxelGrid(const VoxMRCData* volume) {
        if (!volume || volume->GetDimCount() != 3 || volume->GetStorageMethod() != Storage_BySlice) return;
        m_extentX = volume->GetDimSize(1);
        m_extentY = volume->GetDimSize(0);
        m_extentZ = volume->GetDimSize(2);
    }

    int extentX() const { return static_cast<int>(m_extentX); }
    int extentY() const { return static_cast<int>(m_extentY); }
    int extentZ() const { return static_cast<int>(m_extentZ); }
    std::int64_t voxelCount() const { return m_extentX * m_extentY * m_extentZ; }

    int index(int x, int y, int z) const {
        if (x < 0 || x >= m_extentX || y < 0 || y >= m_extentY || z < 0 || z >= m_extentZ) return -1;
        const std::int64_t index = (m_extentX * z + x) * m_extentY + y;
        return index <= std::numeric_limits<int>::max() ? static_cast<int>(index) : -1;
    }

    Voxel voxel(int index) const {
        const auto size = static_cast<std::uint32_t>(m_extentX * m_extentY);
        const auto rowSize = static_cast<std::uint32_t>(m_extentY);
        const std::uint32_t z = static_cast<std::uint32_t>(index) / size;
        const std::uint32_t position = static_cast<std::uint32_t>(index) - z * size;
        const std::uint32_t x = position / rowSize;
        return {static_cast<int>(x), static_cast<int>(position - x * rowSize), static_cast<int>(z)};
    }

private:
    std::int64_t m_extentX = 0;
    std::int64_t m_extentY = 0;
    std::int64_t m_extentZ = 0;
};

}  // namespace VRK::detail
