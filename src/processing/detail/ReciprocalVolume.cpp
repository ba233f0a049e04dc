#include "processing/detail/ReciprocalVolume.h"

#include <algorithm>
#include <limits>
#include <opencv2/core/hal/intrin.hpp>

namespace VRK::detail {
namespace {

struct Limits {
    short lowest;
    short highest;
};

/// The averages of four columns, truncated towards zero. Negative ones are stored as 0, but count for the
/// limits. Whole quarters and remainders are summed for themselves: neither leaves the 16 bits of a pixel, so
/// that vectors hold twice as many as of whole sums.
[[gnu::always_inline]] inline Limits averageOf(const short* a, const short* b, const short* c, const short* d,
                                               short* out, std::size_t n) {
    short lowest = std::numeric_limits<short>::max();
    short highest = std::numeric_limits<short>::min();
    for (std::size_t i = 0; i < n; ++i) {
        const auto quarters = static_cast<short>((a[i] >> 2) + (b[i] >> 2) + (c[i] >> 2) + (d[i] >> 2));
        const auto rest = static_cast<short>((a[i] & 3) + (b[i] & 3) + (c[i] & 3) + (d[i] & 3));
        const auto down = static_cast<short>(quarters + (rest >> 2));
        const auto up = static_cast<short>(quarters + ((rest + 3) >> 2));
        const short value = std::max(down, std::min<short>(up, 0));
        lowest = std::min(lowest, value);
        highest = std::max(highest, value);
        out[i] = std::max<short>(value, 0);
    }
    return {lowest, highest};
}

Limits averageOnAnyMachine(const short* a, const short* b, const short* c, const short* d, short* out,
                           std::size_t n) {
    return averageOf(a, b, c, d, out, n);
}

using Average = Limits (*)(const short*, const short*, const short*, const short*, short*, std::size_t);

#if defined(__x86_64__)
/// The same in registers of twice the width.
[[gnu::target("avx2")]] Limits averageWithAvx2(const short* a, const short* b, const short* c, const short* d,
                                               short* out, std::size_t n) {
    return averageOf(a, b, c, d, out, n);
}

Average fastestAverage() {
    return __builtin_cpu_supports("avx2") ? averageWithAvx2 : averageOnAnyMachine;
}
#else
Average fastestAverage() {
    return averageOnAnyMachine;
}
#endif

constexpr std::size_t kTransposeBlock = 8;

/// Exchanges rows and columns of 8 x 8 values: three times the rows of the upper half are interleaved with
/// those of the lower half.
void transposeBlock(const short* in, std::size_t inStride, short* out, std::size_t outStride) {
    std::array<cv::v_int16x8, kTransposeBlock> rows, mixed;
    for (std::size_t i = 0; i < kTransposeBlock; ++i)
        rows[i] = cv::v_load(in + i * inStride);
    for (int round = 0; round < 3; ++round) {
        for (std::size_t i = 0; i < kTransposeBlock / 2; ++i)
            cv::v_zip(rows[i], rows[i + kTransposeBlock / 2], mixed[2 * i], mixed[2 * i + 1]);
        std::swap(rows, mixed);
    }
    for (std::size_t i = 0; i < kTransposeBlock; ++i)
        cv::v_store(out + i * outStride, rows[i]);
}

/// Tiles keep what is read and what is written in the cache.
void transpose(const short* in, std::size_t width, std::size_t height, short* out) {
    constexpr std::size_t kTile = 8 * kTransposeBlock;
    for (std::size_t tileY = 0; tileY < height; tileY += kTile)
        for (std::size_t tileX = 0; tileX < width; tileX += kTile) {
            const std::size_t endY = std::min(tileY + kTile, height);
            const std::size_t endX = std::min(tileX + kTile, width);
            const std::size_t wholeY = tileY + (endY - tileY) / kTransposeBlock * kTransposeBlock;
            const std::size_t wholeX = tileX + (endX - tileX) / kTransposeBlock * kTransposeBlock;
            for (std::size_t x = tileX; x < wholeX; x += kTransposeBlock)
                for (std::size_t y = tileY; y < wholeY; y += kTransposeBlock)
                    transposeBlock(in + y * width + x, width, out + x * height + y, height);
            for (std::size_t x = tileX; x < endX; ++x)
                for (std::size_t y = x < wholeX ? wholeY : tileY; y < endY; ++y)
                    out[x * height + y] = in[y * width + x];
        }
}

}  // namespace

ReciprocalVolumeFiller::ReciprocalVolumeFiller(const VoxMRCData& series, const SamplingGeometry& geometry,
                                               const FrameRotation* rotation, VoxMRCData& volume)
    : m_series(series),
      m_geometry(geometry),
      m_rotation(rotation),
      m_volume(volume),
      m_width(geometry.width()),
      m_height(series.GetHeight()),
      m_groupsOfPair(2 * (m_width / 2 + 1)),
      m_lanes([this] {
          Lane lane;
          if (m_rotation) lane.rotation = m_rotation->another();
          lane.average.resize(m_height);
          return lane;
      }),
      m_lowest(std::numeric_limits<short>::max()),
      m_highest(std::numeric_limits<short>::min()) {
    sortColumns(groupsOfColumns());
    const std::size_t notRecorded = m_width * geometry.depth() - m_columns.size();
    if (notRecorded == 0) return;
    m_lowest = m_highest = kNotRecorded;
    m_counts.add(0, static_cast<std::uint32_t>(notRecorded * m_height));
}

std::uint32_t ReciprocalVolumeFiller::groupOf(const SamplingGeometry::Sample& sample, bool right) const {
    if (!sample.inside()) return kNoGroup;
    // The pair, the inner distance and the side of the axis tell all sources.
    const std::size_t side = right ? 1 : 0;
    return static_cast<std::uint32_t>(static_cast<std::size_t>(sample.lower) * m_groupsOfPair +
                                      2 * static_cast<std::size_t>(sample.inner) + side);
}

std::vector<std::uint32_t> ReciprocalVolumeFiller::groupsOfColumns() const {
    const unsigned width = m_geometry.width();
    const unsigned depth = m_geometry.depth();
    std::vector<std::uint32_t> groups(m_width * depth);
    // A column and the one opposite to it were seen at the same tilt and distance, on different sides.
    for (unsigned layer = 0; 2 * layer <= depth - 1; ++layer)
        for (unsigned x = 0; x < width; ++x) {
            const SamplingGeometry::Sample sample = m_geometry.sample(x, layer);
            const bool right = 2 * x >= width;
            groups[m_width * layer + x] = groupOf(sample, right);
            groups[m_width * (depth - 1 - layer) + (width - 1 - x)] = groupOf(sample, !right);
        }
    return groups;
}

void ReciprocalVolumeFiller::sortColumns(const std::vector<std::uint32_t>& groups) {
    m_groupBegin.assign(m_series.GetDepth() * m_groupsOfPair + 1, 0);
    for (const std::uint32_t group : groups)
        if (group != kNoGroup) ++m_groupBegin[group + 1];
    for (std::size_t group = 1; group < m_groupBegin.size(); ++group)
        m_groupBegin[group] += m_groupBegin[group - 1];
    m_columns.resize(m_groupBegin.back());
    std::vector<std::uint32_t> next(m_groupBegin.begin(), m_groupBegin.end() - 1);
    for (std::size_t column = 0; column < groups.size(); ++column)
        if (groups[column] != kNoGroup)
            m_columns[next[groups[column]]++] = static_cast<std::uint32_t>(column);
}

const short* ReciprocalVolumeFiller::transposed(int pattern, Lane& lane) const {
    Transposed& result = lane.transposed[static_cast<std::size_t>(pattern) % 2];
    if (result.pattern != pattern) {
        result.pixels.resize(m_width * m_height);
        const short* pixels = m_series.GetChunkPointer(static_cast<unsigned>(pattern));
        if (lane.rotation) {
            lane.turned.create(static_cast<int>(m_height), static_cast<int>(m_width));
            lane.rotation->apply(readOnly(pixels, static_cast<int>(m_width), static_cast<int>(m_height)),
                                 lane.turned);
            pixels = lane.turned[0];
        }
        transpose(pixels, m_width, m_height, result.pixels.data());
        result.pattern = pattern;
    }
    return result.pixels.data();
}

void ReciprocalVolumeFiller::fillPair(unsigned pair, std::size_t number) {
    Lane& lane = m_lanes[number];
    for (std::size_t group = pair * m_groupsOfPair; group < (pair + 1) * m_groupsOfPair; ++group) {
        const std::uint32_t begin = m_groupBegin[group];
        const std::uint32_t end = m_groupBegin[group + 1];
        if (begin < end) fillGroup(group, {m_columns.data() + begin, m_columns.data() + end}, lane);
    }
}

void ReciprocalVolumeFiller::finish() {
    m_lanes.forEach([this](const Lane& lane) {
        m_lowest = std::min(m_lowest, lane.lowest);
        m_highest = std::max(m_highest, lane.highest);
        m_counts.add(lane.counts);
    });
}

void ReciprocalVolumeFiller::fillGroup(std::size_t group, std::span<const std::uint32_t> columns,
                                       Lane& lane) const {
    static const Average average = fastestAverage();
    const auto width = static_cast<std::uint32_t>(m_width);
    // groupOf() the other way round.
    const auto pattern = static_cast<int>(group / m_groupsOfPair);
    const auto distance = static_cast<int>(group % m_groupsOfPair / 2);
    const bool right = group % 2 == 1;
    const short* lower = transposed(pattern, lane);
    const short* upper = transposed(pattern + 1, lane);
    const std::size_t inner = static_cast<std::size_t>(m_geometry.columnAt(distance, right)) * m_height;
    const std::size_t outer = static_cast<std::size_t>(m_geometry.columnAt(distance + 1, right)) * m_height;
    const Limits limits =
        average(upper + inner, lower + inner, upper + outer, lower + outer, lane.average.data(), m_height);
    lane.lowest = std::min(lane.lowest, limits.lowest);
    lane.highest = std::max(lane.highest, limits.highest);
    lane.counts.add(lane.average, static_cast<std::uint32_t>(columns.size()));
    for (const std::uint32_t column : columns)
        std::copy(lane.average.begin(), lane.average.end(),
                  m_volume.GetChunkPointer(column / width) + column % width * m_height);
}

}  // namespace VRK::detail
