#include "VoxCore/DataModel/detail/SliceReduction.h"

#include <algorithm>
#include <cstddef>
#include <limits>

#include "VoxCore/DataModel/detail/Transposed.h"

namespace VRK::detail {
namespace {

short roundedMean(std::int64_t sum, std::int64_t count) {
    const std::int64_t half = sum < 0 ? -count / 2 : count / 2;
    return static_cast<short>((sum + half) / count);
}

/// How many of the source's voxels along an axis fall into a block.
int blockLength(int index, int edge, int size) {
    return std::min(edge, size - index * edge);
}

int blocksAlong(int size, int edge) {
    return (size - 1) / edge + 1;
}

}  // namespace

SliceReduction::SliceReduction(const mrcH& source, int reduction, VoxVolumeData::Block block, Order order)
    : m_depth(source.nz),
      m_edge(std::clamp(reduction, 1, std::max(source.nx, source.ny))),
      m_blockDepth(source.type == MRCType::MRCVOLUME ? std::clamp(reduction, 1, source.nz) : 1),
      m_columns(order == Order::XFastest ? source.nx : source.ny),
      m_rows(order == Order::XFastest ? source.ny : source.nx),
      m_block(block),
      m_order(order),
      m_view(source, reduction),
      m_layer(static_cast<std::size_t>(m_view.width()) * m_view.height()),
      m_values(m_layer.size()) {
    startLayer();
}

SliceReduction::Order SliceReduction::orderOf(const mrcH& header) {
    return header.type == MRCType::MRCVOLUME ? Order::YFastest : Order::XFastest;
}

void SliceReduction::startLayer() {
    const bool mean = m_block == VoxVolumeData::Block::Mean;
    std::fill(m_layer.begin(), m_layer.end(), mean ? 0 : std::numeric_limits<std::int64_t>::lowest());
}

template <typename Combine>
void SliceReduction::addRows(std::span<const short> slice, Combine combine) {
    const auto blocks = static_cast<std::size_t>(blocksAlong(m_columns, m_edge));
    const auto whole = static_cast<std::size_t>(m_columns / m_edge);
    const auto edge = static_cast<std::size_t>(m_edge);
    const short* row = slice.data();
    for (int y = 0; y < m_rows; ++y, row += m_columns) {
        std::int64_t* const layer = m_layer.data() + static_cast<std::size_t>(y / m_edge) * blocks;
        for (std::size_t i = 0; i < whole; ++i) {
            std::int64_t value = layer[i];
            for (std::size_t x = i * edge; x < (i + 1) * edge; ++x)
                value = combine(value, row[x]);
            layer[i] = value;
        }
        for (auto x = whole * edge; x < static_cast<std::size_t>(m_columns); ++x)
            layer[whole] = combine(layer[whole], row[x]);
    }
}

void SliceReduction::add(int z, std::span<const short> slice) {
    if (m_edge == 1 && m_blockDepth == 1) {
        store(z, slice.data());
        return;
    }
    if (m_block == VoxVolumeData::Block::Mean)
        addRows(slice, [](std::int64_t sum, short value) { return sum + value; });
    else
        addRows(slice,
                [](std::int64_t highest, short value) { return std::max<std::int64_t>(highest, value); });
    const int inLayer = z % m_blockDepth + 1;
    if (inLayer == m_blockDepth || z == m_depth - 1) finishLayer(z / m_blockDepth, inLayer);
}

void SliceReduction::finishLayer(int viewZ, int slices) {
    const int columns = blocksAlong(m_columns, m_edge);
    const int rows = blocksAlong(m_rows, m_edge);
    std::size_t i = 0;
    for (int row = 0; row < rows; ++row) {
        const std::int64_t length = static_cast<std::int64_t>(blockLength(row, m_edge, m_rows)) * slices;
        for (int column = 0; column < columns; ++column, ++i)
            m_values[i] = m_block == VoxVolumeData::Block::Mean
                              ? roundedMean(m_layer[i], length * blockLength(column, m_edge, m_columns))
                              : static_cast<short>(m_layer[i]);
    }
    store(viewZ, m_values.data());
    startLayer();
}

void SliceReduction::store(int viewZ, const short* values) {
    const auto columns = static_cast<std::size_t>(blocksAlong(m_columns, m_edge));
    const auto rows = static_cast<std::size_t>(blocksAlong(m_rows, m_edge));
    short* const out = m_view.m_voxels.data() + static_cast<std::size_t>(viewZ) * rows * columns;
    if (m_order == Order::XFastest)
        std::copy(values, values + rows * columns, out);
    else
        transpose(values, rows, columns, out);
}

}  // namespace VRK::detail
