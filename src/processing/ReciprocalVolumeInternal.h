/// \file
/// The filling of the reciprocal volume, column by column.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "VoxCore/DataModel/ValueCountsInternal.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "processing/SamplingGeometry.h"

namespace VRK::detail {

/// A copy of a series with y fastest: the pixel columns that a voxel column is made of, and the voxel column
/// itself, then all lie contiguously.
class TransposedSeries {
public:
    /// \throw std::bad_alloc
    explicit TransposedSeries(const VoxMRCData& series);

    const short* column(int slice, int x) const {
        return m_pixels.get() +
               (static_cast<std::size_t>(slice) * m_width + static_cast<std::size_t>(x)) * m_height;
    }
    std::size_t slices() const { return m_slices; }
    std::size_t height() const { return m_height; }

private:
    std::size_t m_width;
    std::size_t m_height;
    std::size_t m_slices;
    std::unique_ptr<short[]> m_pixels;
};

/// What a voxel holds that was not recorded, until negative values are cleared.
inline constexpr short kNotRecorded = -10;

/// Fills the volume layer by layer and keeps what its finishing needs to know.
///
/// More than half of the voxel columns of a usual series share all four sources with another one. Every
/// combination of sources is therefore averaged and counted once, with the number of its columns as weight,
/// and copied from there on.
class ReciprocalVolumeFiller {
public:
    /// \param volume zeros, width x height x depth of the geometry
    ReciprocalVolumeFiller(const TransposedSeries& series, const SamplingGeometry& geometry,
                           VoxMRCData& volume);

    /// Stores the averages of one layer, negative ones as 0; voxels that were not recorded are left alone.
    /// Layers are filled once each, in any order.
    void fillLayer(unsigned layer);

    /// Limits of all layers, when they are filled, as they were before the clearing, kNotRecorded included.
    short lowest() const { return m_lowest; }
    short highest() const { return m_highest; }
    /// How often each value occurs in all layers, when they are filled, after the clearing.
    const ValueCounts& counts() const { return m_counts; }

private:
    /// Voxel columns with the same sources.
    struct Combination {
        std::uint32_t columns = 0;
        const short* average = nullptr;  ///< where it was stored first
    };

    std::size_t combinationOf(const SamplingGeometry::Sample& sample, unsigned x) const;
    void average(const SamplingGeometry::Sample& sample, short* column);

    static constexpr std::uint32_t kNoCombination = 0xffffffff;

    const TransposedSeries& m_series;
    const SamplingGeometry& m_geometry;
    VoxMRCData& m_volume;
    std::vector<std::uint32_t> m_combinationOfColumn;  ///< of (x, layer), x fastest
    std::vector<Combination> m_combinations;
    short m_lowest;
    short m_highest;
    ValueCounts m_counts;
};

}  // namespace VRK::detail
