/// \file
/// What a filter of few pixels did to a series.
#pragma once

#include <utility>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "processing/ReplacedPixel.h"

namespace vrk {

/// The pixels in which a series differs from what it was before, and its header: far smaller than either.
class ReplacedPixels {
public:
    ReplacedPixels() = default;
    /// \param after     header of the series after the filter
    /// \param ofFrame   what the filter replaced
    ReplacedPixels(const mrcH& after, std::vector<std::vector<ReplacedPixel>> ofFrame)
        : m_header(after), m_ofFrame(std::move(ofFrame)) {}

    /// Makes of what was before what was after, header included. False, and nothing is done, for a series of
    /// another size.
    bool replaceIn(VoxMRCData& before) const;

private:
    mrcH m_header;
    std::vector<std::vector<ReplacedPixel>> m_ofFrame;
};

}  // namespace vrk
