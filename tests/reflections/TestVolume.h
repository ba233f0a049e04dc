/// \file
/// Small volumes for the tests of the reflection search.
#pragma once

#include "VoxCore/DataModel/VoxMRCData.h"
#include "support/Testing.h"

/// A volume with the dimension list (d0, d1, d2) whose voxels, in the order of their linear indices, have
/// the given values; without values all are 0.
inline std::unique_ptr<VoxMRCData> makeVolume(std::array<unsigned, 3> dims,
                                              const std::vector<short>& values = {}) {
    std::unique_ptr<VoxMRCData> volume(VoxMRCData::Create3D(dims[0], dims[1], dims[2]));
    const std::size_t sliceSize = std::size_t{dims[0]} * dims[1];
    for (unsigned z = 0; z < dims[2]; ++z) {
        short* slice = volume->GetChunkPointer(z);
        if (values.empty())
            std::fill_n(slice, sliceSize, short{0});
        else
            std::copy_n(values.begin() + static_cast<std::ptrdiff_t>(z * sliceSize), sliceSize, slice);
    }
    return volume;
}

inline void setVoxel(VoxMRCData& volume, unsigned x, unsigned y, unsigned z, short value) {
    volume.GetChunkPointer(z)[x * volume.GetDimSize(0) + y] = value;
}

/// A volume of random shape, 1 to 12 voxels an edge, with values from -spread to spread.
inline std::unique_ptr<VoxMRCData> randomVolume(std::mt19937& random, int spread) {
    std::uniform_int_distribution<unsigned> extent(1, 12);
    std::uniform_int_distribution<int> level(-spread, spread);
    const std::array<unsigned, 3> dims = {extent(random), extent(random), extent(random)};
    std::vector<short> values(std::size_t{dims[0]} * dims[1] * dims[2]);
    for (short& value : values)
        value = static_cast<short>(level(random));
    return makeVolume(dims, values);
}
