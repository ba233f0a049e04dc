#include "pipeline/run/ReplacedPixels.h"

namespace vrk {

bool ReplacedPixels::replaceIn(VoxMRCData& before) const {
    const bool fits = before.GetDepth() == m_ofFrame.size() && before.m_Header.nx == m_header.nx &&
                      before.m_Header.ny == m_header.ny;
    if (!fits) return false;
    for (std::size_t frame = 0; frame < m_ofFrame.size(); ++frame)
        for (const ReplacedPixel& pixel : m_ofFrame[frame])
            before.GetChunkPointer(static_cast<unsigned>(frame))[pixel.place] = pixel.value;
    before.m_Header = m_header;
    return true;
}

}  // namespace vrk
