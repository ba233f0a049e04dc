/// \file
/// The filling of the reciprocal volume, column by column.
#pragma once

#include <cstddef>
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
    std::size_t height() const { return m_height; }

private:
    std::size_t m_width;
    std::size_t m_height;
    std::unique_ptr<short[]> m_pixels;
};

/// What a voxel holds that was not recorded, until negative values are cleared.
inline constexpr short kNotRecorded = -10;

/// Fills the volume layer by layer and keeps what its finishing needs to know.
class ReciprocalVolumeFiller {
public:
    /// \param volume zeros, width x height x depth of the geometry
    ReciprocalVolumeFiller(const TransposedSeries& series, const SamplingGeometry& geometry,
                           VoxMRCData& volume);

    /// Stores the averages of one layer, negative ones as 0; voxels that were not recorded are left alone.
    void fillLayer(unsigned layer);

    /// The sources of the columns of the layer that was filled last.
    const std::vector<SamplingGeometry::Sample>& samples() const { return m_samples; }
    /// Limits of the layers so far as they were before the clearing, kNotRecorded included.
    short lowest() const { return m_lowest; }
    short highest() const { return m_highest; }
    /// How often each value occurs in the layers so far, after the clearing.
    const ValueCounts& counts() const { return m_counts; }

private:
    const TransposedSeries& m_series;
    const SamplingGeometry& m_geometry;
    VoxMRCData& m_volume;
    std::vector<SamplingGeometry::Sample> m_samples;
    short m_lowest;
    short m_highest;
    ValueCounts m_counts;
};

}  // namespace VRK::detail
