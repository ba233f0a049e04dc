/// \file
/// Series for tests.
#pragma once

#include "VoxCore/DataModel/VoxHistogram.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "support/Testing.h"

/// A series of zeros with a complete header.
inline std::unique_ptr<VoxMRCData> makeSeries(unsigned width, unsigned height,
                                              const std::vector<float>& tilts, float pixelSize = 1e8F) {
    std::unique_ptr<VoxMRCData> series(
        VoxMRCData::Create3D(width, height, static_cast<unsigned>(tilts.size())));
    mrcH& header = series->m_Header;
    header.type = MRCType::TILT_SERIES;
    header.nx = header.mx = static_cast<int>(width);
    header.ny = header.my = static_cast<int>(height);
    header.nz = header.mz = static_cast<int>(tilts.size());
    header.mode = 1;
    header.next = 131072;
    header.m_pixelsize = pixelSize;
    for (int i = 0; i < header.nz; ++i) {
        header.setValue(SliceValue::TiltAngle, i, tilts[static_cast<std::size_t>(i)]);
        header.setValue(SliceValue::PixelSize, i, pixelSize);
    }
    return series;
}

/// Tilts from first to last.
inline std::vector<float> range(float first, float last, float step) {
    std::vector<float> tilts;
    for (float tilt = first; tilt <= last; tilt += step)
        tilts.push_back(tilt);
    return tilts;
}

inline std::vector<short> pixelsOf(const VoxMRCData& data, unsigned slice) {
    const short* pixels = data.GetChunkPointer(slice);
    return {pixels, pixels + data.GetChunkSize()};
}

inline void setPixels(VoxMRCData& data, unsigned slice, const std::vector<short>& pixels) {
    std::copy(pixels.begin(), pixels.end(), data.GetChunkPointer(slice));
}

/// Whether data come with the histogram of their voxels.
inline bool hasItsHistogram(VoxMRCData& data) {
    VoxHistogram<short> own(&data, 256, {});
    own.Update();
    return data.m_Histogram->m_Bins == own.m_Bins && data.m_Histogram->m_MinValue == own.m_MinValue &&
           data.m_Histogram->m_MaxValue == own.m_MaxValue;
}
