#include "reflections/detail/RegionSeeds.h"

#include <algorithm>
#include <cstddef>

#include "foundation/SharedLoop.h"
#include "reflections/detail/RegionGrower.h"

namespace VRK::detail {
namespace {

/// Finding the largest value is a loop that the compiler turns into vector code.
template <int size>
short largestOf(const short* values) {
    short largest = values[0];
    for (int i = 1; i < size; ++i)
        largest = std::max(largest, values[i]);
    return largest;
}

/// Visits the foreground voxels of a row whose y has the parity of \p first. Most blocks of a row hold
/// background only and are passed over whole.
template <typename Visit>
void forEachForeground(const short* row, int size, int first, int limit, Visit visit) {
    constexpr int blockSize = 64;
    for (int begin = 0; begin < size; begin += blockSize) {
        const int end = std::min(begin + blockSize, size);
        if (end - begin == blockSize && largestOf<blockSize>(row + begin) < limit) continue;
        for (int y = begin + first; y < end; y += 2)
            if (row[y] >= limit) visit(y);
    }
}

}  // namespace

// Sorting the few seeds that there are costs less than visiting the voxels in the order of x, y, z, which is
// across the slices.
RegionSeeds::RegionSeeds(const VoxMRCData& searched, int limit) : volume(&searched), foregroundLimit(limit) {
    const VoxelGrid grid(&searched);
    std::vector<std::vector<int>> ofSlice(static_cast<std::size_t>(grid.extentZ()));
    VRK::shareItems(ofSlice.size(), [&](std::size_t item, std::size_t) {
        const int z = static_cast<int>(item);
        const int parity = z % 2;
        std::vector<int>& found = ofSlice[item];
        const short* slice = searched.GetChunkPointer(static_cast<unsigned>(z));
        for (int x = parity; x < grid.extentX(); x += 2) {
            const int rowBegin = x * grid.extentY();
            forEachForeground(slice + rowBegin, grid.extentY(), parity, limit,
                              [&](int y) { found.push_back((rowBegin + y) * grid.extentZ() + z); });
        }
    });
    for (std::size_t z = 0; z < ofSlice.size(); ++z) {
        std::vector<int>& all = z % 2 == 0 ? even.numbers : odd.numbers;
        all.insert(all.end(), ofSlice[z].begin(), ofSlice[z].end());
    }
    VRK::shareItems(2, [this](std::size_t parity, std::size_t) {
        sortAscending(parity == 0 ? even.numbers : odd.numbers);
    });
}

void RegionSeeds::keepValues(const VoxMRCData& searched) {
    const int depth = VoxelGrid(&searched).extentZ();
    for (Pass* pass : {&even, &odd}) {
        pass->values.clear();
        pass->values.reserve(pass->numbers.size());
        for (const int number : pass->numbers)
            pass->values.push_back(
                searched.GetChunkPointer(static_cast<unsigned>(number % depth))[number / depth]);
    }
}

}  // namespace VRK::detail
