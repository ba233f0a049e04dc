#include "pipeline/frames/SeriesHeader.h"

#include <algorithm>
#include <new>
#include <span>

#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"

namespace vrk {

mrcH tiltSeriesHeader(int width, int height, const std::vector<double>& tilts, double pixelSize,
                      const std::string& label) {
    constexpr int recordBytes = 144;
    mrcH header;
    header.type = MRCType::TILT_SERIES;
    header.m_pixelsize = static_cast<float>(pixelSize);
    header.nx = header.mx = width;
    header.ny = header.my = height;
    header.nz = header.mz = static_cast<int>(tilts.size());
    header.mode = 1;
    header.xlen = static_cast<float>(width * pixelSize);
    header.ylen = static_cast<float>(height * pixelSize);
    header.zlen = static_cast<float>(static_cast<double>(tilts.size()) * pixelSize);
    header.alpha = header.beta = header.gamma = 90;
    header.mapc = 1;
    header.mapr = 2;
    header.maps = 3;
    header.next = recordBytes * header.nz;
    header.cmap = {'M', 'A', 'P', ' '};
    header.stamp = {0x44, 0x41, 0, 0};  // little-endian
    header.nlabl = 1;
    header.labl.fill(' ');
    std::copy_n(label.begin(), std::min<std::size_t>(label.size(), 80), header.labl.begin());
    for (int i = 0; i < header.nz; ++i) {
        header.setValue(SliceValue::TiltAngle, i, static_cast<float>(tilts[static_cast<std::size_t>(i)]));
        header.setValue(SliceValue::PixelSize, i, static_cast<float>(pixelSize));
    }
    return header;
}

std::unique_ptr<VoxMRCData> emptySeries(int width, int height, std::size_t slices) {
    requireMemory(2 * static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) * slices,
                  formatted("%zu slices of %d x %d pixels", slices, width, height));
    std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(
        static_cast<unsigned>(width), static_cast<unsigned>(height), static_cast<unsigned>(slices)));
    if (!series) throw std::bad_alloc();
    return series;
}

void setDensities(VoxMRCData& series) {
    short lowest = 32767;
    short highest = -32768;
    double total = 0;
    const unsigned slices = series.GetChunkCount();
    for (unsigned z = 0; z < slices; ++z) {
        const std::span<const short> slice(series.GetChunkPointer(z), series.GetChunkSize());
        double sum = 0;
        for (const short value : slice) {
            lowest = std::min(lowest, value);
            highest = std::max(highest, value);
            sum += value;
        }
        series.m_Header.setValue(SliceValue::MeanIntensity, static_cast<int>(z),
                                 static_cast<float>(sum / static_cast<double>(slice.size())));
        total += sum / static_cast<double>(slice.size());
    }
    series.m_Header.amin = lowest;
    series.m_Header.amax = highest;
    series.m_Header.amean = static_cast<float>(total / slices);
}

}  // namespace vrk
