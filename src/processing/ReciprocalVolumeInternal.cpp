#include "processing/ReciprocalVolumeInternal.h"

#include <algorithm>
#include <limits>
#include <opencv2/core.hpp>

#include "processing/FrameInternal.h"

namespace VRK::detail {
namespace {

struct Limits {
    short lowest;
    short highest;
};

/// The averages of four columns, truncated towards zero. Negative ones are stored as 0, but count for the
/// limits.
Limits averageColumns(const short* a, const short* b, const short* c, const short* d, short* out,
                      std::size_t n, Limits limits) {
    short lowest = limits.lowest;
    short highest = limits.highest;
    for (std::size_t i = 0; i < n; ++i) {
        const int sum = a[i] + b[i] + c[i] + d[i];
        // Shifting rounds down; 3 more for negative sums makes that a division by 4 that truncates.
        const short value = static_cast<short>((sum + ((sum >> 31) & 3)) >> 2);
        lowest = std::min(lowest, value);
        highest = std::max(highest, value);
        out[i] = std::max<short>(value, 0);
    }
    return {lowest, highest};
}

}  // namespace

TransposedSeries::TransposedSeries(const VoxMRCData& series)
    : m_width(series.GetWidth()),
      m_height(series.GetHeight()),
      m_pixels(new short[std::size_t{series.GetDepth()} * series.GetChunkSize()]) {
    const int width = static_cast<int>(m_width);
    const int height = static_cast<int>(m_height);
    for (unsigned slice = 0; slice < series.GetDepth(); ++slice) {
        Frame columns(width, height, m_pixels.get() + std::size_t{slice} * m_width * m_height);
        cv::transpose(readOnly(series.GetChunkPointer(slice), width, height), columns);
    }
}

ReciprocalVolumeFiller::ReciprocalVolumeFiller(const TransposedSeries& series,
                                               const SamplingGeometry& geometry, VoxMRCData& volume)
    : m_series(series),
      m_geometry(geometry),
      m_volume(volume),
      m_samples(geometry.width()),
      m_lowest(std::numeric_limits<short>::max()),
      m_highest(std::numeric_limits<short>::min()) {}

void ReciprocalVolumeFiller::fillLayer(unsigned layer) {
    const std::size_t height = m_series.height();
    short* column = m_volume.GetChunkPointer(layer);
    std::size_t notRecorded = 0;
    Limits limits{m_lowest, m_highest};
    for (unsigned x = 0; x < m_geometry.width(); ++x, column += height) {
        const SamplingGeometry::Sample& s = m_samples[x] = m_geometry.sample(x, layer);
        if (!s.inside()) {
            ++notRecorded;
            continue;
        }
        limits =
            averageColumns(m_series.column(s.upper, s.innerColumn), m_series.column(s.lower, s.innerColumn),
                           m_series.column(s.upper, s.outerColumn), m_series.column(s.lower, s.outerColumn),
                           column, height, limits);
        m_counts.add({column, height});
    }
    if (notRecorded > 0) {
        limits.lowest = std::min(limits.lowest, kNotRecorded);
        limits.highest = std::max(limits.highest, kNotRecorded);
        m_counts.add(0, static_cast<std::uint32_t>(notRecorded * height));
    }
    m_lowest = limits.lowest;
    m_highest = limits.highest;
}

}  // namespace VRK::detail
