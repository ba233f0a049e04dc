#include "processing/RecordedPixels.h"

#include <algorithm>
#include <cmath>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "processing/ImageOperations.h"
#include "processing/detail/Frame.h"

namespace {

/// Places of the frame beside a row or column of the moved pattern; nothing where it lies outside.
struct Sources {
    Sources(double move, int size) {
        for (int i = 0; i < size; ++i) {
            const double from = i - move;
            inside.push_back(from >= 0 && from <= size - 1 ? 1 : 0);
            below.push_back(inside.back() ? static_cast<std::size_t>(std::floor(from)) : 0);
            above.push_back(inside.back() ? static_cast<std::size_t>(std::ceil(from)) : 0);
        }
    }
    std::vector<unsigned char> inside;
    std::vector<std::size_t> below, above;
};

}  // namespace

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
    if (pattern >= m_moves.size()) {
        std::fill_n(mask, m_lost.size(), static_cast<unsigned char>(0));
        return;
    }
    const Sources columns(m_moves[pattern].x, m_width), rows(m_moves[pattern].y, m_height);
    std::vector<unsigned char> outside;
    for (const unsigned char inside : columns.inside)
        outside.push_back(inside ? 0 : 1);
    const auto width = static_cast<std::size_t>(m_width);
    const auto losesSome = [&](const unsigned char* row) {
        return std::find(row, row + width, 1) != row + width;
    };
    for (std::size_t y = 0; y < rows.inside.size(); ++y, mask += width) {
        const unsigned char* below = m_lost.data() + rows.below[y] * width;
        const unsigned char* above = m_lost.data() + rows.above[y] * width;
        if (!rows.inside[y]) {
            std::fill_n(mask, width, static_cast<unsigned char>(1));
        } else if (!m_anyLost || (!losesSome(below) && !losesSome(above))) {
            std::copy(outside.begin(), outside.end(), mask);
        } else {
            for (std::size_t x = 0; x < width; ++x) {
                const std::size_t left = columns.below[x], right = columns.above[x];
                mask[x] = outside[x] | below[left] | below[right] | above[left] | above[right];
            }
        }
    }
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
