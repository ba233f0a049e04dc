#include "pipeline/run/ReplacedPixels.h"

#include <algorithm>
#include <span>
#include <tuple>

#include "foundation/SharedLoop.h"

namespace vrk {
namespace {

std::span<const short> frameOf(const VoxMRCData& series, std::size_t number) {
    return {series.GetChunkPointer(static_cast<unsigned>(number)), series.GetChunkSize()};
}

}  // namespace

ReplacedPixels::ReplacedPixels(const VoxMRCData& before, const VoxMRCData& after)
    : m_header(after.m_Header), m_ofFrame(after.GetDepth()) {
    VRK::shareItems(m_ofFrame.size(), [&](std::size_t frame, std::size_t) {
        const std::span<const short> values = frameOf(after, frame);
        auto was = frameOf(before, frame).begin();
        for (auto is = values.begin();;) {
            std::tie(is, was) = std::mismatch(is, values.end(), was);
            if (is == values.end()) break;
            m_ofFrame[frame].push_back({static_cast<std::uint32_t>(is - values.begin()), *is});
            ++is, ++was;
        }
    });
}

bool ReplacedPixels::replaceIn(VoxMRCData& before) const {
    const bool fits = before.GetDepth() == m_ofFrame.size() && before.m_Header.nx == m_header.nx &&
                      before.m_Header.ny == m_header.ny;
    if (!fits) return false;
    for (std::size_t frame = 0; frame < m_ofFrame.size(); ++frame)
        for (const Pixel& pixel : m_ofFrame[frame])
            before.GetChunkPointer(static_cast<unsigned>(frame))[pixel.place] = pixel.value;
    before.m_Header = m_header;
    return true;
}

}  // namespace vrk
