/// \file
/// Builds a volume view out of slices that arrive one by one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "VoxCore/DataModel/VoxVolumeData.h"
#include "VoxCore/DataModel/mrcH.h"

namespace VRK::detail {

/// Keeps the view and one layer of blocks, not the source.
class SliceReduction {
public:
    enum class Order { XFastest, YFastest };

    /// \param source  header of the data, whose type tells whether slices may be mixed
    SliceReduction(const mrcH& source, int reduction, VoxVolumeData::Block block, Order order);

    /// The order in which data of this type lie in files and in VoxMRCData.
    static Order orderOf(const mrcH& header);

    /// To be called for z = 0 ... nz - 1 in this order.
    void add(int z, std::span<const short> slice);
    VoxVolumeData take() { return std::move(m_view); }

private:
    void startLayer();
    template <typename Combine>
    void addRows(std::span<const short> slice, Combine combine);
    void finishLayer(int viewZ, int slices);
    /// Puts the values of a layer, in the order of the source, into the view.
    void store(int viewZ, const short* values);

    int m_depth;
    int m_edge;  ///< of a block along x and y
    int m_blockDepth;
    int m_columns;  ///< voxels of the source along the fastest axis
    int m_rows;
    VoxVolumeData::Block m_block;
    Order m_order;
    VoxVolumeData m_view;
    std::vector<std::int64_t> m_layer;  ///< sums or maxima of the blocks, in the order of the source
    std::vector<short> m_values;        ///< the layer when it is complete, in the same order
};

}  // namespace VRK::detail
