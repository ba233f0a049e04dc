/// \file
/// The reflection search written down plainly, with ordered sets and no shortcuts, for comparison.
#pragma once

#include <queue>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/Parameter.h"
#include "reflections/ReflexOnGrid.h"
#include "support/Testing.h"

using PlainVoxel = std::array<int, 3>;  // x, y, z

class PlainVolume {
public:
    PlainVolume(const VoxMRCData& volume, double threshold)
        : m_volume(volume), m_threshold(static_cast<float>(threshold)) {}

    int d(unsigned i) const { return static_cast<int>(m_volume.GetDimSize(i)); }
    int index(const PlainVoxel& v) const {
        const auto& [x, y, z] = v;
        const bool inside = x >= 0 && x < d(1) && y >= 0 && y < d(0) && z >= 0 && z < d(2);
        return inside ? (d(1) * z + x) * d(0) + y : -1;
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
    std::array<double, 3> total{}, weighted{};
    PlainVoxel brightest{}, low{}, high{};
    float sum = 0, max = 0, min = 0;

    /// Adds the voxel if it belongs to the region.
    bool add(const PlainVolume& volume, const PlainVoxel& v, bool first = false) {
        const int index = volume.index(v);
        if (index == -1 || (!first && volume.background(index)) || !points.insert(index).second) return false;
        const float value = volume.value(index);
        sum += value;
        if (first) low = high = v;
        for (std::size_t i = 0; i < 3; ++i) {
            total[i] += v[i];
            weighted[i] += double{value} * v[i];
            low[i] = std::min(low[i], v[i]);
            high[i] = std::max(high[i], v[i]);
        }
        if (first || min > value) min = value;
        if (!first && value <= max) return true;
        max = value;
        brightest = v;
        return true;
    }

    static PlainReflection grow(const PlainVolume& volume, const PlainVoxel& start) {
        PlainReflection region;
        region.add(volume, start, true);
        for (std::queue<PlainVoxel> queue({start}); !queue.empty(); queue.pop())
            for (std::size_t i = 0; i < 6; ++i) {
                PlainVoxel next = queue.front();
                next[i / 2] += i % 2 == 0 ? -1 : 1;
                if (region.add(volume, next)) queue.push(next);
            }
        return region;
    }

    double center(int axis, int type) const {
        const auto i = static_cast<std::size_t>(axis);
        if (type == 1) return brightest[i];
        return type == 2 ? total[i] / static_cast<double>(points.size()) : weighted[i] / double{sum};
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
                    if (std::ranges::none_of(list, [&](auto& other) { return other.points.contains(index); }))
                        list.push_back(PlainReflection::grow(volume, {x, y, z}));
                }
    std::erase_if(list, [&](const PlainReflection& r) {
        const int count = static_cast<int>(r.points.size());
        double square = 0;
        for (int axis = 0; axis < 3; ++axis)
            square += std::pow(volume.d(static_cast<unsigned>(axis)) / 2 -
                                   r.center(axis, p.getWhichReflectionMiddleShouldUsed()),
                               2);
        const double radius = std::sqrt(square);
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
    EXPECT_TRUE(x == region.getCenter(0) && y == region.getCenter(1) && z == region.getCenter(2));
    EXPECT_EQ(region.getCenter(0, 7), 0.0);
    EXPECT_EQ(region.getMaxValue(), expected.max);
    EXPECT_EQ(region.getMinValue(), expected.min);
    EXPECT_EQ(region.getIntensity(), double{expected.sum});
    EXPECT_EQ(region.getWidth(), expected.high[0] - expected.low[0] + 1);
    EXPECT_EQ(region.getHeight(), expected.high[1] - expected.low[1] + 1);
    EXPECT_EQ(region.getDepth(), expected.high[2] - expected.low[2] + 1);
    EXPECT_FALSE(region.isIndicated());
}
