#include "reflections/FindReflexes.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "foundation/detail/Log.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/VolumeMath.h"
#include "reflections/detail/RegionGrower.h"

using VRK::detail::log;
using VRK::detail::Region;
using VRK::detail::RegionGrower;
using VRK::detail::VoxelGrid;

namespace {

/// Why a volume cannot be searched; empty when it can.
std::string problemOf(const VoxMRCData* volume, const Parameter* parameter) {
    if (!volume || !parameter) return "no volume or no parameters to search with.";
    const VoxelGrid grid(volume);
    if (grid.voxelCount() > std::numeric_limits<int>::max())
        return "the volume has more voxels than a reflection can number (2147483647); bin it.";
    if (grid.voxelCount() == 0 && volume->GetDataSize() != 0)
        return "the volume is not stored by slice in three dimensions.";
    return {};
}

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

/// The foreground voxels at which regions may start, in the order in which they are tried. A seed is the
/// number (x D0 + y) D2 + z, so that ascending numbers are in the order of x, y, z.
struct Seeds {
    std::vector<int> even;
    std::vector<int> odd;
};

/// Collects them in one pass through memory. Sorting the few that there are costs less than visiting the
/// voxels in the order of x, y, z, which is across the slices.
Seeds collectSeeds(const VoxMRCData& volume, const VoxelGrid& grid, int foregroundLimit) {
    Seeds seeds;
    for (int z = 0; z < grid.extentZ(); ++z) {
        const int parity = z % 2;
        std::vector<int>& found = parity == 0 ? seeds.even : seeds.odd;
        const short* slice = volume.GetChunkPointer(static_cast<unsigned>(z));
        for (int x = parity; x < grid.extentX(); x += 2) {
            const int rowBegin = x * grid.extentY();
            forEachForeground(slice + rowBegin, grid.extentY(), parity, foregroundLimit,
                              [&](int y) { found.push_back((rowBegin + y) * grid.extentZ() + z); });
        }
    }
    VRK::detail::sortAscending(seeds.even);
    VRK::detail::sortAscending(seeds.odd);
    return seeds;
}

/// Runs a filter of the list and deletes what it takes out, which nobody else holds.
template <typename Filter>
void filterAndDelete(ReflexVector& list, Filter filter) {
    const std::vector<Reflex*> before(list.begin(), list.end());
    filter(list);
    auto survivor = list.begin();
    for (Reflex* reflex : before) {
        if (survivor != list.end() && *survivor == reflex)
            ++survivor;
        else
            Reflex::destroy(reflex);
    }
}

void dropByDistance(const VoxMRCData& volume, const Parameter& parameter, ReflexVector& list) {
    const unsigned cx = volume.GetDimSize(0) / 2;
    const unsigned cy = volume.GetDimSize(1) / 2;
    const unsigned cz = volume.GetDimSize(2) / 2;
    const int type = parameter.getWhichReflectionMiddleShouldUsed();
    if (parameter.getCutOffZeroBeam())
        filterAndDelete(list, [&](ReflexVector& reflexes) {
            reflexes.cutOffZeroBeam(cx, cy, cz, parameter.getMinDistToZeroBeam(), type);
        });
    if (parameter.getLimitResolution())
        filterAndDelete(list, [&](ReflexVector& reflexes) {
            reflexes.limitResolution(cx, cy, cz, parameter.getLimitOfResolution(), type);
        });
}

}  // namespace

ReflexVector* FindReflexes::findAllReflexes(VoxMRCData* volume, Parameter* parameter, bool quiet,
                                            double* seconds) {
    if (!quiet) log(">> FindReflexes::findAllReflexes", VRK::Debug, VRK::MethodControl);
    const std::time_t start = std::time(nullptr);
    ReflexVector* reflexes = nullptr;
    const auto fail = [quiet](const std::string& reason) {
        if (!quiet) log("FindReflexes: " + reason, VRK::Error);
    };
    if (const std::string problem = problemOf(volume, parameter); !problem.empty()) {
        fail(problem);
    } else {
        try {
            reflexes = findAllReflexes(volume, parameter);
        } catch (const std::bad_alloc&) {
            fail("no memory for the reflections of the volume; raise the threshold or bin the volume.");
            throw;
        }
    }
    if (seconds) *seconds = std::difftime(std::time(nullptr), start);
    if (!quiet) log("<< FindReflexes::findAllReflexes", VRK::Debug, VRK::MethodControl);
    return reflexes;
}

ReflexVector* FindReflexes::findAllReflexes(VoxMRCData* volume, Parameter* parameter) {
    const int steps = VoxelGrid(volume).extentX() / 2 * 2 + 2;
    setSteps(steps, " ");
    VolumeMath::setZeroCompareValue(parameter->getThreshold());
    ReflexVectorPtr found(new ReflexVector);
    if (!collectRegions(*volume, *parameter, *found)) {
        log("findAllReflexes() canceled ...");
        return nullptr;
    }
    dropByDistance(*volume, *parameter, *found);
    updateStep(steps);
    return found.release();
}

bool FindReflexes::collectRegions(const VoxMRCData& volume, const Parameter& parameter, ReflexVector& found) {
    const VoxelGrid grid(&volume);
    RegionGrower grower(volume, grid);
    const Seeds seeds = collectSeeds(volume, grid, grower.foregroundLimit());
    const auto fits = [&](const Region& region) {
        const auto count = static_cast<std::int64_t>(region.voxels.size());
        return count >= parameter.getMinCountOfVoxel() && count <= parameter.getMaxCountOfVoxel();
    };
    int step = 0;
    for (const int parity : {0, 1}) {
        const std::vector<int>& pass = parity == 0 ? seeds.even : seeds.odd;
        auto seed = pass.begin();
        for (int x = parity; x < grid.extentX(); x += 2) {
            const std::int64_t end = (std::int64_t{x} + 1) * grid.extentY() * grid.extentZ();
            for (; seed != pass.end() && *seed < end; ++seed) {
                const int position = *seed / grid.extentZ();
                const int index = *seed % grid.extentZ() * grid.extentX() * grid.extentY() + position;
                if (grower.taken(index)) continue;
                Region& region = grower.grow(index);
                // Regions of other sizes leave the list again below; their voxel sets need not be built.
                if (!fits(region)) continue;
                found.append(ReflexPtr(new ReflexOnGrid(&volume, region)));
            }
            updateStep(++step);
            if (canceled()) return false;
        }
    }
    return true;
}
