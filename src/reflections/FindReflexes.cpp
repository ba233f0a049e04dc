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
#include "reflections/detail/RegionSeeds.h"

using VRK::detail::log;
using VRK::detail::Region;
using VRK::detail::RegionGrower;
using VRK::detail::RegionSeeds;
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

void FindReflexes::lookThrough(const VoxMRCData* volume, double lowestThreshold) {
    m_seeds.reset();
    if (!volume || VoxelGrid(volume).voxelCount() > std::numeric_limits<int>::max()) return;
    auto seeds = std::make_shared<RegionSeeds>(
        *volume, VRK::detail::smallestForeground(static_cast<float>(lowestThreshold)));
    seeds->keepValues(*volume);
    m_seeds = std::move(seeds);
}

std::shared_ptr<const RegionSeeds> FindReflexes::seedsFor(const VoxMRCData& volume,
                                                          int foregroundLimit) const {
    if (m_seeds && m_seeds->volume == &volume && m_seeds->foregroundLimit <= foregroundLimit) return m_seeds;
    return std::make_shared<const RegionSeeds>(volume, foregroundLimit);
}

bool FindReflexes::collectRegions(const VoxMRCData& volume, const Parameter& parameter, ReflexVector& found) {
    const VoxelGrid grid(&volume);
    RegionGrower grower(volume, grid);
    const std::shared_ptr<const RegionSeeds> seeds = seedsFor(volume, grower.foregroundLimit());
    const auto fits = [&](const Region& region) {
        const auto count = static_cast<std::int64_t>(region.voxels.size());
        return count >= parameter.getMinCountOfVoxel() && count <= parameter.getMaxCountOfVoxel();
    };
    // What is certain of the number is looked at whenever the list has grown by so many.
    std::size_t nextLook = m_most;
    const auto tooMany = [&] {
        if (found.size() <= nextLook) return false;
        dropByDistance(volume, parameter, found);
        nextLook = found.size() + m_most / 8;
        return found.size() > m_most;
    };
    int step = 0;
    for (const int parity : {0, 1}) {
        const RegionSeeds::Pass& pass = parity == 0 ? seeds->even : seeds->odd;
        std::size_t i = 0;
        for (int x = parity; x < grid.extentX(); x += 2) {
            const std::int64_t end = (std::int64_t{x} + 1) * grid.extentY() * grid.extentZ();
            for (; i < pass.numbers.size() && pass.numbers[i] < end; ++i) {
                if (!pass.values.empty() && pass.values[i] < grower.foregroundLimit()) continue;
                const int position = pass.numbers[i] / grid.extentZ();
                const int index =
                    pass.numbers[i] % grid.extentZ() * grid.extentX() * grid.extentY() + position;
                if (grower.taken(index)) continue;
                Region& region = grower.grow(index);
                // Regions of other sizes leave the list again below; their voxel sets need not be built.
                if (!fits(region)) continue;
                found.append(ReflexPtr(new ReflexOnGrid(&volume, region)));
                if (tooMany()) return true;
            }
            updateStep(++step);
            if (canceled()) return false;
        }
    }
    return true;
}
