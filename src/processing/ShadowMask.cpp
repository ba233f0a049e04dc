#include "processing/ShadowMask.h"

#include "VoxCore/DataModel/VoxMRCData.h"
#include "processing/detail/DetectorCross.h"
#include "processing/detail/PowderRings.h"
#include "processing/detail/SeriesMean.h"
#include "processing/detail/ShadowFinder.h"

using VRK::detail::DetectorCross;
using VRK::detail::PowderRings;
using VRK::detail::SeriesMean;
using VRK::detail::ShadowFinder;

ShadowMask::ShadowMask(const VoxMRCData* series) {
    if (series && series->GetDimCount() == 3 && series->GetDataSize() > 0) *this = of(SeriesMean(*series));
}

ShadowMask ShadowMask::of(const SeriesMean& mean) {
    ShadowMask result;
    if (mean.counts <= 0) return result;
    const DetectorCross cross(mean);
    SeriesMean bridged = mean;
    cross.removeFrom(bridged);
    PowderRings(bridged).removeFrom(bridged);
    ShadowFinder finder(bridged);
    result.m_width = mean.width;
    result.m_height = mean.height;
    result.m_pixels = finder.find();
    result.m_bars = finder.bars();
    result.m_discs = finder.discs();
    result.m_rows = cross.rows;
    result.m_columns = cross.columns;
    if (cross.empty()) return result;
    const auto width = static_cast<std::size_t>(mean.width);
    result.m_pixels.resize(mean.values.size());
    for (const int row : cross.rows)
        for (std::size_t x = 0; x < width; ++x)
            result.m_pixels[static_cast<std::size_t>(row) * width + x] = 255;
    for (const int column : cross.columns)
        for (std::size_t i = static_cast<std::size_t>(column); i < result.m_pixels.size(); i += width)
            result.m_pixels[i] = 255;
    return result;
}
