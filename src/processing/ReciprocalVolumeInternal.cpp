#include "processing/ReciprocalVolumeInternal.h"

#include <algorithm>
#include <limits>
#include <opencv2/core.hpp>

#include "foundation/LargePagesInternal.h"
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
                      std::size_t n) {
    short lowest = std::numeric_limits<short>::max();
    short highest = std::numeric_limits<short>::min();
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
      m_slices(series.GetDepth()),
      m_pixels(new short[m_slices * m_width * m_height]) {
    preferLargePages(m_pixels.get(), m_slices * m_width * m_height * sizeof(short));
    const int width = static_cast<int>(m_width);
    const int height = static_cast<int>(m_height);
    for (unsigned slice = 0; slice < series.GetDepth(); ++slice) {
        Frame columns(width, height, m_pixels.get() + slice * m_width * m_height);
        cv::transpose(readOnly(series.GetChunkPointer(slice), width, height), columns);
    }
}

ReciprocalVolumeFiller::ReciprocalVolumeFiller(const TransposedSeries& series,
                                               const SamplingGeometry& geometry, VoxMRCData& volume)
    : m_series(series),
      m_geometry(geometry),
      m_volume(volume),
      m_combinationOfColumn(std::size_t{geometry.width()} * geometry.depth(), kNoCombination),
      m_combinations(series.slices() * 2 * (geometry.width() / 2 + 1)),
      m_lowest(std::numeric_limits<short>::max()),
      m_highest(std::numeric_limits<short>::min()) {
    std::size_t column = 0;
    std::size_t notRecorded = 0;
    for (unsigned layer = 0; layer < geometry.depth(); ++layer)
        for (unsigned x = 0; x < geometry.width(); ++x, ++column) {
            const SamplingGeometry::Sample sample = geometry.sample(x, layer);
            if (!sample.inside()) {
                ++notRecorded;
                continue;
            }
            const std::size_t combination = combinationOf(sample, x);
            m_combinationOfColumn[column] = static_cast<std::uint32_t>(combination);
            ++m_combinations[combination].columns;
        }
    if (notRecorded > 0) {
        m_lowest = m_highest = kNotRecorded;
        m_counts.add(0, static_cast<std::uint32_t>(notRecorded * series.height()));
    }
}

std::size_t ReciprocalVolumeFiller::combinationOf(const SamplingGeometry::Sample& sample, unsigned x) const {
    // The upper pattern, the inner distance and the side of the axis tell the other sources too.
    const std::size_t distances = m_geometry.width() / 2 + 1;
    const std::size_t side = 2 * x >= m_geometry.width() ? 1 : 0;
    return (static_cast<std::size_t>(sample.upper) * 2 + side) * distances +
           static_cast<std::size_t>(sample.inner);
}

void ReciprocalVolumeFiller::fillLayer(unsigned layer) {
    const std::size_t height = m_series.height();
    const std::uint32_t* combinations =
        m_combinationOfColumn.data() + std::size_t{layer} * m_geometry.width();
    short* column = m_volume.GetChunkPointer(layer);
    for (unsigned x = 0; x < m_geometry.width(); ++x, column += height) {
        if (combinations[x] == kNoCombination) continue;
        Combination& combination = m_combinations[combinations[x]];
        if (combination.average) {
            std::copy_n(combination.average, height, column);
            continue;
        }
        average(m_geometry.sample(x, layer), column);
        m_counts.add({column, height}, combination.columns);
        combination.average = column;
    }
}

void ReciprocalVolumeFiller::average(const SamplingGeometry::Sample& s, short* column) {
    const Limits limits =
        averageColumns(m_series.column(s.upper, s.innerColumn), m_series.column(s.lower, s.innerColumn),
                       m_series.column(s.upper, s.outerColumn), m_series.column(s.lower, s.outerColumn),
                       column, m_series.height());
    m_lowest = std::min(m_lowest, limits.lowest);
    m_highest = std::max(m_highest, limits.highest);
}

}  // namespace VRK::detail
