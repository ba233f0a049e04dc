#include "processing/RecordedPixels.h"

#include <algorithm>
#include <cmath>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "processing/ImageOperations.h"
#include "processing/detail/Frame.h"

RecordedPixels::RecordedPixels(int width, int height, const Area& area, const ShadowMask& shadows,
                               const std::vector<PatternCentre>& centres)
    : m_width(width), m_height(height) {
    if (width < 1 || height < 1) return;
    m_lost.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0);
    if (!shadows.empty() && shadows.width() == width && shadows.height() == height)
        ImageOperations::morphology(ImageView<unsigned char>{shadows.pixels(), width, height},
                                    ImageOperations::Morphology::Dilate, 1, m_lost.data());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool inside =
                x >= area.left && y >= area.top && x < area.left + area.width && y < area.top + area.height;
            unsigned char& lost = m_lost[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                                         static_cast<std::size_t>(x)];
            lost = lost != 0 || !inside ? 1 : 0;
            m_anyLost = m_anyLost || lost != 0;
        }
    const cv::Point2d middle = VRK::detail::centreOf(width, height);
    for (const PatternCentre& centre : centres) {
        Move move{middle.x - centre.x, middle.y - centre.y};
        const bool moved =
            centre.source != PatternCentre::Source::None && !VRK::detail::isCentred(move.x, move.y);
        m_moves.push_back(moved ? move : Move{0, 0});
    }
}

void RecordedPixels::recentre(unsigned pattern, double x, double y) {
    if (pattern >= m_moves.size()) return;
    m_moves[pattern].x -= x;
    m_moves[pattern].y -= y;
}

bool RecordedPixels::fits(const VoxMRCData& series) const {
    return static_cast<int>(series.GetWidth()) == m_width &&
           static_cast<int>(series.GetHeight()) == m_height && series.GetDepth() == m_moves.size();
}

bool RecordedPixels::isLost(const Move& move, int x, int y) const {
    const double fromX = x - move.x;
    const double fromY = y - move.y;
    if (!(fromX >= 0 && fromY >= 0 && fromX <= m_width - 1 && fromY <= m_height - 1)) return true;
    if (!m_anyLost) return false;
    const auto at = [this](double column, double row) {
        return m_lost[static_cast<std::size_t>(row) * static_cast<std::size_t>(m_width) +
                      static_cast<std::size_t>(column)] != 0;
    };
    return at(std::floor(fromX), std::floor(fromY)) || at(std::ceil(fromX), std::ceil(fromY)) ||
           at(std::floor(fromX), std::ceil(fromY)) || at(std::ceil(fromX), std::floor(fromY));
}

void RecordedPixels::notRecorded(unsigned pattern, unsigned char* mask) const {
    if (empty()) return;
    const bool known = pattern < m_moves.size();
    for (int y = 0; y < m_height; ++y)
        for (int x = 0; x < m_width; ++x)
            *mask++ = known && isLost(m_moves[pattern], x, y) ? 1 : 0;
}

bool RecordedPixels::isCut(unsigned pattern, double x, double y, double reach) const {
    if (empty() || pattern >= m_moves.size()) return false;
    // Also keeps what is no number away from the conversions.
    if (!(x >= 0 && y >= 0 && x <= m_width - 1 && y <= m_height - 1)) return true;
    const int nearest = static_cast<int>(std::ceil(std::clamp(reach, 0.0, 100.0)));
    const int column = static_cast<int>(std::lround(x));
    const int row = static_cast<int>(std::lround(y));
    for (int dy = -nearest; dy <= nearest; ++dy)
        for (int dx = -nearest; dx <= nearest; ++dx)
            if (std::hypot(column + dx - x, row + dy - y) <= reach &&
                isLost(m_moves[pattern], column + dx, row + dy))
                return true;
    return false;
}
