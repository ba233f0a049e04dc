#include "pipeline/run/SearchOptions.h"

#include "cellfinding/Parameter.h"
#include "pipeline/base/Failure.h"

namespace vrk {

void SearchOptions::applyTo(Parameter& parameter) const {
    if (threshold) parameter.setThreshold(*threshold);
    if (minVoxels) parameter.setMinCountOfVoxel(*minVoxels);
    if (maxVoxels) parameter.setMaxCountOfVoxel(*maxVoxels);
    if (zeroBeam) {
        parameter.setCutOffZeroBeam(*zeroBeam > 0.0);
        parameter.setMinDistToZeroBeam(*zeroBeam);
    }
    if (resolution) {
        parameter.setLimitResolution(*resolution > 0.0);
        parameter.setLimitOfResolution(*resolution);
    }
    if (centre) parameter.setWhichReflectionMiddleShouldUsed(*centre);
    refuseUnlessAscending("voxels", parameter.getMinCountOfVoxel(), parameter.getMaxCountOfVoxel());
}

}  // namespace vrk
