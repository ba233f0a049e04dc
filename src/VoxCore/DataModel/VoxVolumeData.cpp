#include "VoxCore/DataModel/VoxVolumeData.h"

#include <algorithm>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/detail/SliceReduction.h"

using VRK::detail::SliceReduction;

namespace {

std::int32_t reducedSize(std::int32_t size, int reduction) {
    return (size - 1) / reduction + 1;
}

mrcH reducedHeader(mrcH header, int reduction) {
    const int block = std::max(reduction, 1);
    header.nx = reducedSize(header.nx, block);
    header.ny = reducedSize(header.ny, block);
    if (header.type == MRCType::MRCVOLUME) header.nz = reducedSize(header.nz, block);
    header.m_pixelsize *= static_cast<float>(block);
    for (int z = 0; z < header.nz; ++z)
        header.setValue(SliceValue::PixelSize, z,
                        header.value(SliceValue::PixelSize, z) * static_cast<float>(block));
    return header;
}

/// The place of a position of the source in a row of blocks.
double inBlocks(double position, int edge) {
    return (position - 0.5 * (edge - 1)) / edge;
}

std::array<double, 3> reducedMiddle(const std::array<double, 3>& middle, const mrcH& header, int edge) {
    const int edgeZ = header.type == MRCType::MRCVOLUME ? edge : 1;
    return {inBlocks(middle[0], edge), inBlocks(middle[1], edge), inBlocks(middle[2], edgeZ)};
}

std::array<double, 3> middleOf(const mrcH& header) {
    return {0.5 * (header.nx - 1), 0.5 * (header.ny - 1), 0.5 * (header.nz - 1)};
}

}  // namespace

VoxVolumeData::VoxVolumeData(const mrcH& header, int reduction)
    : m_header(reducedHeader(header, reduction)),
      m_reduction(std::max(reduction, 1)),
      m_middle(reducedMiddle(middleOf(header), header, m_reduction)),
      m_voxels(static_cast<std::size_t>(width()) * height() * depth(), 0) {}

VoxVolumeData VoxVolumeData::fromData(const VoxMRCData& data, int reduction, Block block) {
    mrcH header = data.m_Header;
    header.nx = static_cast<std::int32_t>(data.GetWidth());
    header.ny = static_cast<std::int32_t>(data.GetHeight());
    header.nz = static_cast<std::int32_t>(data.GetDepth());
    SliceReduction view(header, reduction, block, SliceReduction::orderOf(header));
    for (int z = 0; z < header.nz; ++z)
        view.add(z, {data.GetChunkPointer(static_cast<unsigned>(z)), data.GetChunkSize()});
    return view.take();
}

VoxVolumeData VoxVolumeData::reduced(int reduction, Block block) const {
    SliceReduction view(m_header, reduction, block, SliceReduction::Order::XFastest);
    const std::size_t area = static_cast<std::size_t>(width()) * height();
    for (int z = 0; z < m_header.nz; ++z)
        view.add(z, voxels().subspan(static_cast<std::size_t>(z) * area, area));
    VoxVolumeData result = view.take();
    result.m_middle = reducedMiddle(m_middle, m_header, result.m_reduction);
    result.m_reduction *= m_reduction;
    return result;
}
