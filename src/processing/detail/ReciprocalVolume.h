/// \file
/// The filling of the reciprocal volume, column by column.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/detail/ValueCounts.h"
#include "foundation/SharedLoop.h"
#include "processing/SamplingGeometry.h"
#include "processing/detail/Resampling.h"

namespace VRK::detail {

/// What a voxel holds that was not recorded, until negative values are cleared.
inline constexpr short kNotRecorded = -10;

/// Fills the volume and keeps what its finishing needs to know.
///
/// More than half of the voxel columns of a usual series share all four sources with another one. The columns
/// are therefore grouped by their sources; each group is averaged and counted once and stored as often as it
/// has columns. The groups are worked on from one pair of neighbouring patterns to the next, so that only two
/// transposed patterns are needed at a time, and these stay in the cache.
class ReciprocalVolumeFiller {
public:
    /// \param rotation  of the patterns before they are used; null: none. Must live as long
    /// \param volume    zeros, width x height x depth of the geometry
    ReciprocalVolumeFiller(const VoxMRCData& series, const SamplingGeometry& geometry,
                           const FrameRotation* rotation, VoxMRCData& volume);

    /// Pairs of neighbouring patterns.
    unsigned pairs() const { return m_series.GetDepth() - 1; }
    /// Stores the averages of all voxel columns between the patterns \p pair and \p pair + 1, negative ones
    /// as 0; voxels that were not recorded are left alone. Pairs are filled once each, fastest in their
    /// order.
    /// \param lane  calls at the same time have different ones (WorkSharing), for scratch memory
    void fillPair(unsigned pair, std::size_t lane = 0);
    /// When all pairs are filled.
    void finish();

    /// Limits, when all is finished, as they were before the clearing, kNotRecorded included.
    short lowest() const { return m_lowest; }
    short highest() const { return m_highest; }
    /// How often each value occurs, when all is finished, after the clearing.
    const ValueCounts& counts() const { return m_counts; }

private:
    static constexpr std::uint32_t kNoGroup = 0xffffffff;

    /// A pattern with y fastest: the pixel columns that a voxel column is made of, and the voxel column
    /// itself, then all lie contiguously.
    struct Transposed {
        int pattern = -1;
        std::vector<short> pixels;
    };

    struct Lane {
        std::array<Transposed, 2> transposed;
        std::optional<FrameRotation> rotation;
        Frame turned;
        std::vector<short> average;
        short lowest = std::numeric_limits<short>::max();
        short highest = std::numeric_limits<short>::min();
        ValueCounts counts;
    };

    std::vector<std::uint32_t> groupsOfColumns() const;
    std::uint32_t groupOf(const SamplingGeometry::Sample& sample, bool right) const;
    void sortColumns(const std::vector<std::uint32_t>& groups);
    const short* transposed(int pattern, Lane& lane) const;
    void fillGroup(std::size_t group, std::span<const std::uint32_t> columns, Lane& lane) const;

    const VoxMRCData& m_series;
    const SamplingGeometry& m_geometry;
    const FrameRotation* m_rotation;
    VoxMRCData& m_volume;
    std::size_t m_width;
    std::size_t m_height;
    std::size_t m_groupsOfPair;               ///< groups between two patterns, empty ones included
    std::vector<std::uint32_t> m_columns;     ///< voxel columns (layer * width + x), group after group
    std::vector<std::uint32_t> m_groupBegin;  ///< where a group begins in it; one more for the end
    PerLane<Lane> m_lanes;
    short m_lowest;
    short m_highest;
    ValueCounts m_counts;
};

}  // namespace VRK::detail
