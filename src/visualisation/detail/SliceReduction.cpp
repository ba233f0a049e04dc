#include <algorithm>
#include <cstddef>

#include "visualisation/detail/SliceReduction.h"

namespace VRK::detail {
namespace {

short roundedMean(std::int64_t sum, std::int64_t count) {
    const std::int64_t half = sum < 0 ? -count / 2 : count / 2;
    return static_cast<short>((sum + half) / count);
}

/// How many of the source's voxels along an axis fall into a block.
int blockLength(int index, int block, int size) {
    return std::min(block, size - index * block);
}

}  // namespace

SliceReduction::SliceReduction(const mrcH& source, int reduction, Order order)
    : m_width(source.nx),
      m_height(source.ny),
      m_depth(source.nz),
      m_block(std::clamp(reduction, 1, std::max(source.nx, source.ny))),
      m_blockDepth(source.type == MRCType::MRCVOLUME ? std::clamp(reduction, 1, source.nz) : 1),
      m_order(order),
      m_view(source, reduction),
      m_sums(static_cast<std::size_t>(m_view.width()) * m_view.height(), 0) {}

SliceReduction::Order SliceReduction::orderOf(const mrcH& header) {
    return header.type == MRCType::MRCVOLUME ? Order::YFastest : Order::XFastest;
}

void SliceReduction::add(int z, std::span<const short> slice) {
    const bool xFastest = m_order == Order::XFastest;
    const auto stepX = static_cast<std::size_t>(xFastest ? 1 : m_height);
    const auto stepY = static_cast<std::size_t>(xFastest ? m_width : 1);
    const auto viewWidth = static_cast<std::size_t>(m_view.width());
    for (int y = 0; y < m_height; ++y) {
        const short* row = slice.data() + static_cast<std::size_t>(y) * stepY;
        std::int64_t* sums = m_sums.data() + static_cast<std::size_t>(y / m_block) * viewWidth;
        for (int x = 0; x < m_width; ++x)
            sums[x / m_block] += row[static_cast<std::size_t>(x) * stepX];
    }
    const int inLayer = z % m_blockDepth + 1;
    if (inLayer == m_blockDepth || z == m_depth - 1) finishLayer(z / m_blockDepth, inLayer);
}

void SliceReduction::finishLayer(int viewZ, int slices) {
    short* out = m_view.m_voxels.data() + static_cast<std::size_t>(viewZ) * m_sums.size();
    std::size_t i = 0;
    for (int y = 0; y < static_cast<int>(m_view.height()); ++y) {
        const std::int64_t column = static_cast<std::int64_t>(blockLength(y, m_block, m_height)) * slices;
        for (int x = 0; x < static_cast<int>(m_view.width()); ++x, ++i)
            out[i] = roundedMean(m_sums[i], column * blockLength(x, m_block, m_width));
    }
    std::fill(m_sums.begin(), m_sums.end(), 0);
}

}  // namespace VRK::detail
