/// \file
/// The reflection search written down plainly, with ordered sets and no shortcuts, for comparison.
#pragma once

#include <queue>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "reflections/ReflexOnGrid.h"
#include "support/Testing.h"

struct PlainVoxel {
    int x, y, z;
};

class PlainVolume {
public:
    PlainVolume(const VoxMRCData& volume, double threshold)
        : m_volume(volume), m_threshold(static_cast<float>(threshold)) {}

    int d(unsigned i) const { return static_cast<int>(m_volume.GetDimSize(i)); }
    int index(const PlainVoxel& v) const {
        const bool inside = v.x >= 0 && v.x < d(1) && v.y >= 0 && v.y < d(0) && v.z >= 0 && v.z < d(2);
        return inside ? (d(1) * v.z + v.x) * d(0) + v.y : -1;
    }
    PlainVoxel voxel(int index) const {
        const int rest = index % (d(1) * d(0));
        return {rest / d(0), rest % d(0), index / (d(1) * d(0))};
    }
    float value(int index) const {
        const int size = d(0) * d(1);
        return m_volume.GetChunkPointer(static_cast<unsigned>(index / size))[index % size];
    }
    bool background(int index) const { return value(index) < m_threshold; }

private:
    const VoxMRCData& m_volume;
    float m_threshold;
};

struct PlainReflection {
    std::set<int> points;
    double x = 0, y = 0, z = 0;
    double weighted[3] = {};
    PlainVoxel brightest{}, low{}, high{};
    float sum = 0, max = 0, min = 0;

    /// Adds the voxel if it belongs to the region.
    bool add(const PlainVolume& volume, const PlainVoxel& v, bool first = false) {
        const int index = volume.index(v);
        if (index == -1 || points.count(index) != 0) return false;
        if (!first && volume.background(index)) return false;
        const float value = volume.value(index);
        points.insert(index);
        x += v.x;
        y += v.y;
        z += v.z;
        sum += value;
        weighted[0] += double{value} * v.x;
        weighted[1] += double{value} * v.y;
        weighted[2] += double{value} * v.z;
        if (first) low = high = v;
        low = {std::min(low.x, v.x), std::min(low.y, v.y), std::min(low.z, v.z)};
        high = {std::max(high.x, v.x), std::max(high.y, v.y), std::max(high.z, v.z)};
        if (first || min > value) min = value;
        if (first || value > max) {
            max = value;
            brightest = v;
        }
        return true;
    }

    static PlainReflection grow(const PlainVolume& volume, const PlainVoxel& start) {
        PlainReflection region;
        region.add(volume, start, true);
        std::queue<PlainVoxel> queue({start});
        for (; !queue.empty(); queue.pop()) {
            const auto [x, y, z] = queue.front();
            for (const PlainVoxel& next :
                 {PlainVoxel{x - 1, y, z}, PlainVoxel{x + 1, y, z}, PlainVoxel{x, y - 1, z},
                  PlainVoxel{x, y + 1, z}, PlainVoxel{x, y, z - 1}, PlainVoxel{x, y, z + 1}})
                if (region.add(volume, next)) queue.push(next);
        }
        return region;
    }

    double center(int axis, int type) const {
        const double gravity[3] = {double(brightest.x), double(brightest.y), double(brightest.z)};
        const double mean[3] = {x, y, z};
        if (type == 1) return gravity[axis];
        return type == 2 ? mean[axis] / static_cast<double>(points.size()) : weighted[axis] / double{sum};
    }
};

inline std::vector<PlainReflection> plainSearch(const VoxMRCData& data, const Parameter& p) {
    const PlainVolume volume(data, p.getThreshold());
    std::vector<PlainReflection> list;
    for (const int first : {0, 1})
        for (int x = first; x < volume.d(1); x += 2)
            for (int y = first; y < volume.d(0); y += 2)
                for (int z = first; z < volume.d(2); z += 2) {
                    const int index = volume.index({x, y, z});
                    if (volume.background(index)) continue;
                    bool known = false;
                    for (const PlainReflection& other : list)
                        known = known || other.points.count(index) != 0;
                    if (!known) list.push_back(PlainReflection::grow(volume, {x, y, z}));
                }
    std::erase_if(list, [&](const PlainReflection& r) {
        const int count = static_cast<int>(r.points.size());
        double distance[3];
        for (int axis = 0; axis < 3; ++axis)
            distance[axis] = volume.d(static_cast<unsigned>(axis)) / 2 -
                             r.center(axis, p.getWhichReflectionMiddleShouldUsed());
        const double radius =
            std::sqrt(distance[0] * distance[0] + distance[1] * distance[1] + distance[2] * distance[2]);
        return count < p.getMinCountOfVoxel() || count > p.getMaxCountOfVoxel() ||
               (p.getCutOffZeroBeam() && !(p.getMinDistToZeroBeam() <= radius)) ||
               (p.getLimitResolution() && !(radius <= p.getLimitOfResolution()));
    });
    return list;
}

inline void expectSame(ReflexOnGrid& region, const PlainReflection& expected) {
    EXPECT_EQ(*region.getPoints(), expected.points);
    EXPECT_EQ(region.getNumberOfVoxels(), static_cast<int>(expected.points.size()));
    for (int axis = 0; axis < 3; ++axis)
        for (const int type : {1, 2, 3}) {
            // Where values cancel, the weighted mean is not a number on both sides.
            const double ours = region.getCenter(axis, type);
            const double theirs = expected.center(axis, type);
            EXPECT_TRUE(ours == theirs || (std::isnan(ours) && std::isnan(theirs)))
                << ours << " != " << theirs;
        }
    double x = 0, y = 0, z = 0;
    region.getCenter(x, y, z);
    EXPECT_EQ((std::array{x, y, z}),
              (std::array{region.getCenter(0), region.getCenter(1), region.getCenter(2)}));
    EXPECT_EQ(region.getCenter(0, 7), 0.0);
    EXPECT_EQ(region.getMaxValue(), expected.max);
    EXPECT_EQ(region.getMinValue(), expected.min);
    EXPECT_EQ(region.getIntensity(), double{expected.sum});
    EXPECT_EQ(region.getWidth(), expected.high.x - expected.low.x + 1);
    EXPECT_EQ(region.getHeight(), expected.high.y - expected.low.y + 1);
    EXPECT_EQ(region.getDepth(), expected.high.z - expected.low.z + 1);
    EXPECT_FALSE(region.isIndicated());
}
