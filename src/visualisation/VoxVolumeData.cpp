#include "visualisation/VoxVolumeData.h"

#include <algorithm>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "visualisation/detail/SliceReduction.h"

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

}  // namespace

VoxVolumeData::VoxVolumeData(const mrcH& header, int reduction)
    : m_header(reducedHeader(header, reduction)),
      m_voxels(static_cast<std::size_t>(width()) * height() * depth(), 0) {}

VoxVolumeData VoxVolumeData::fromData(const VoxMRCData& data, int reduction) {
    mrcH header = data.m_Header;
    header.nx = static_cast<std::int32_t>(data.GetWidth());
    header.ny = static_cast<std::int32_t>(data.GetHeight());
    header.nz = static_cast<std::int32_t>(data.GetDepth());
    SliceReduction view(header, reduction, SliceReduction::orderOf(header));
    for (int z = 0; z < header.nz; ++z)
        view.add(z, {data.GetChunkPointer(static_cast<unsigned>(z)), data.GetChunkSize()});
    return view.take();
}

VoxVolumeData VoxVolumeData::reduced(int reduction) const {
    SliceReduction view(m_header, reduction, SliceReduction::Order::XFastest);
    const std::size_t area = static_cast<std::size_t>(width()) * height();
    for (int z = 0; z < m_header.nz; ++z)
        view.add(z, voxels().subspan(static_cast<std::size_t>(z) * area, area));
    return view.take();
}
