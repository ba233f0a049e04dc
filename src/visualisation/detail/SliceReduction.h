/// \file
/// Builds a volume view out of slices that arrive one by one.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "VoxCore/DataModel/mrcH.h"
#include "visualisation/VoxVolumeData.h"

namespace VRK::detail {

/// Keeps the view and one layer of sums, not the source.
class SliceReduction {
public:
    enum class Order { XFastest, YFastest };

    /// \param source  header of the data, whose type tells whether slices may be mixed
    SliceReduction(const mrcH& source, int reduction, Order order);

    /// The order in which data of this type lie in files and in VoxMRCData.
    static Order orderOf(const mrcH& header);

    /// To be called for z = 0 ... nz - 1 in this order.
    void add(int z, std::span<const short> slice);
    VoxVolumeData take() { return std::move(m_view); }

private:
    void finishLayer(int viewZ, int slices);

    int m_width;
    int m_height;
    int m_depth;
    int m_block;  ///< edge of a block along x and y
    int m_blockDepth;
    Order m_order;
    VoxVolumeData m_view;
    std::vector<std::int64_t> m_sums;
};

}  // namespace VRK::detail
