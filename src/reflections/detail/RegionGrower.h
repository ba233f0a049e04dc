/// \file
/// Growing of connected regions of foreground voxels, the core of the reflection search.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "reflections/detail/VoxelGrid.h"

namespace VRK::detail {

/// One bit a voxel, all clear at the start. The pages of a large set take memory only once a bit in them
/// has been set.
class VoxelFlags {
public:
    explicit VoxelFlags(std::size_t voxels);

    bool test(int index) const { return (m_words.get()[word(index)] & bit(index)) != 0; }
    void set(int index) { m_words.get()[word(index)] |= bit(index); }

private:
    struct Free {
        void operator()(std::uint64_t* words) const { std::free(words); }
    };
    static std::size_t word(int index) { return static_cast<std::size_t>(index) / 64; }
    static std::uint64_t bit(int index) { return std::uint64_t{1} << (static_cast<unsigned>(index) % 64); }

    std::unique_ptr<std::uint64_t, Free> m_words;
};

/// A connected region and what it measures. All sums run over the voxels in the order in which they were
/// reached.
struct Region {
    std::vector<int> voxels;  ///< linear indices in the order in which they were reached
    std::array<double, 3> sums{};
    std::array<double, 3> weightedSums{};  ///< of value times coordinate
    float sumOfValues = 0.0f;
    float minValue = 0.0f;
    float maxValue = 0.0f;
    Voxel brightest;  ///< the first one reached of those with the largest value
    Voxel lowest;     ///< smallest coordinates of the bounding box
    Voxel highest;    ///< largest coordinates of the bounding box
};

/// Grows regions in one volume, by the zero-compare value that is set when the object is made. A voxel
/// enters at most one of the regions.
class RegionGrower {
public:
    /// The grid is the volume's and has not more voxels than int can count. Throws std::bad_alloc, as
    /// growing does, when memory does not suffice.
    RegionGrower(const VoxMRCData& volume, const VoxelGrid& grid);

    /// The smallest value that is not background; 32768 when every value is.
    int foregroundLimit() const { return m_foregroundLimit; }
    /// True when the voxel belongs to a region grown before.
    bool taken(int index) const { return m_taken.test(index); }

    /// Collects all voxels that are connected with the start voxel through shared faces, level by level. The
    /// start voxel belongs to the region whatever its value. The result is valid until the next call; the
    /// caller may reorder its voxels.
    Region& grow(int start);

private:
    void startMeasuring(const Voxel& voxel, short value);
    void measure(const Voxel& voxel, short value);
    void tryVoxel(int index, short value);

    VoxelGrid m_grid;
    std::vector<const short*> m_slices;
    int m_foregroundLimit;
    VoxelFlags m_taken;
    Region m_region;
};

/// Values are compared with a threshold as float; for whole numbers of 16 bits this comparison is the same as
/// one with the next whole number, which this returns; 32768 when every value is background.
int smallestForeground(float threshold);

/// Sorts non-negative numbers in time linear in their count.
void sortAscending(std::vector<int>& values);

}  // namespace VRK::detail
