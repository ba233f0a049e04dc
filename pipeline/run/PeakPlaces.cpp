#include "pipeline/run/PeakPlaces.h"

#include "indexing/ReflectionPositions.h"
#include "processing/SamplingGeometry.h"

namespace vrk {

ReflexVectorPtr placesInPatterns(const ReflexVector& list, const PeakFileHead& head,
                                 std::vector<double>& tilts) {
    // The file names two tilts at most. Where those between them lie hardly matters to the mean place of a
    // voxel's samples, so they are taken as dense.
    constexpr int kTilts = 4000;
    const bool known = head.firstTilt < head.lastTilt;
    const double first = known ? head.firstTilt : -90.0;
    const double last = known ? head.lastTilt : 90.0;
    std::vector<float> dense;
    for (int i = 0; i <= kTilts; ++i)
        dense.push_back(static_cast<float>(first + (last - first) * i / kTilts));
    const SamplingGeometry geometry(static_cast<unsigned>(head.size[0]), dense,
                                    static_cast<unsigned>(head.size[2]));
    return ReflexVectorPtr(ReflectionPositions::fromCenters(&list, 0, geometry, &tilts));
}

}  // namespace vrk
