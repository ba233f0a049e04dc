/// \file
/// What a filter of few pixels did to a series.
#pragma once

#include <cstdint>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"

namespace vrk {

/// The pixels in which a series differs from what it was before, and its header: far smaller than either.
class ReplacedPixels {
public:
    ReplacedPixels() = default;
    /// \param before, after  series of one size
    ReplacedPixels(const VoxMRCData& before, const VoxMRCData& after);

    /// Makes of what was before what was after, header included. False, and nothing is done, for a series of
    /// another size.
    bool replaceIn(VoxMRCData& before) const;

private:
    struct Pixel {
        std::uint32_t place;  ///< in its frame
        short value;
    };
    mrcH m_header;
    std::vector<std::vector<Pixel>> m_ofFrame;
};

}  // namespace vrk
