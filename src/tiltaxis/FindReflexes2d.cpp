#include "tiltaxis/FindReflexes2d.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "foundation/VRKLogger.h"
#include "foundation/detail/Selection.h"
#include "foundation/detail/SingleThreadedOpenCV.h"
#include "processing/detail/Frame.h"
#include "tiltaxis/Reflex2d.h"

namespace {

constexpr double kSmoothing = 1.0;
constexpr int kCellSize = 32;
constexpr float kNoiseLevels = 6.0F;
constexpr float kMinimumHeight = 1.0F;
constexpr int kSmallestSpot = 3;
constexpr int kLargestSpot = 400;
constexpr double kBeamRadius = 0.05;  // of the frame's width

/// What a pattern looks like without its spots.
class LocalBackground {
public:
    explicit LocalBackground(const cv::Mat_<float>& pattern) {
        const int columns = std::max(1, pattern.cols / kCellSize);
        const int rows = std::max(1, pattern.rows / kCellSize);
        cv::Mat_<float> level(rows, columns), height(rows, columns);
        for (int row = 0; row < rows; ++row)
            for (int column = 0; column < columns; ++column) {
                const int left = pattern.cols * column / columns,
                          right = pattern.cols * (column + 1) / columns;
                const int top = pattern.rows * row / rows, bottom = pattern.rows * (row + 1) / rows;
                measure(pattern(cv::Rect(left, top, right - left, bottom - top)), level(row, column),
                        height(row, column));
            }
        cv::resize(level, m_level, pattern.size(), 0, 0, cv::INTER_LINEAR);
        cv::resize(height, m_height, pattern.size(), 0, 0, cv::INTER_LINEAR);
    }

    const cv::Mat_<float>& level() const { return m_level; }
    /// By how much a spot has to stand out.
    const cv::Mat_<float>& height() const { return m_height; }

private:
    void measure(const cv::Mat_<float>& cell, float& level, float& height) {
        m_values.clear();
        for (int row = 0; row < cell.rows; ++row)
            m_values.insert(m_values.end(), cell[row], cell[row] + cell.cols);
        m_ranks.assign(m_values);
        level = m_ranks.upperMedian();
        for (float& value : m_values)
            value = std::abs(value - level);
        m_ranks.assign(m_values);
        height = std::max(kMinimumHeight, kNoiseLevels * 1.4826F * m_ranks.upperMedian());
    }

    std::vector<float> m_values;
    VRK::detail::RankedFloats m_ranks;
    cv::Mat_<float> m_level;
    cv::Mat_<float> m_height;
};

/// Sums over the pixels of one group.
struct Group {
    double sum = 0.0, x = 0.0, y = 0.0;
    float peak = 0.0F, threshold = std::numeric_limits<float>::max();
    int pixels = 0;
};

std::vector<Group> groupsOf(const cv::Mat_<float>& excess, const cv::Mat_<float>& height) {
    const cv::Mat mask = excess >= height;
    cv::Mat_<int> labels;
    const int count = cv::connectedComponents(mask, labels, 8, CV_32S);
    std::vector<Group> groups(static_cast<std::size_t>(count));
    for (int row = 0; row < labels.rows; ++row)
        for (int column = 0; column < labels.cols; ++column) {
            const int label = labels(row, column);
            if (label == 0) continue;
            Group& group = groups[static_cast<std::size_t>(label)];
            const float value = excess(row, column);
            group.sum += value;
            group.x += static_cast<double>(value) * column;
            group.y += static_cast<double>(value) * row;
            group.peak = std::max(group.peak, value);
            group.threshold = std::min(group.threshold, height(row, column));
            ++group.pixels;
        }
    return groups;
}

void appendSpots(const VRK::detail::Frame& frame, int pattern, double tilt, ReflexVector& spots) {
    cv::Mat_<float> smoothed;
    frame.convertTo(smoothed, CV_32F);
    cv::GaussianBlur(smoothed, smoothed, cv::Size(), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
    const LocalBackground background(smoothed);
    const cv::Point2d centre = VRK::detail::centreOf(frame.cols, frame.rows);
    smoothed -= background.level();
    for (const Group& group : groupsOf(smoothed, background.height())) {
        if (group.pixels < kSmallestSpot || group.pixels > kLargestSpot) continue;
        const double u = group.x / group.sum - centre.x;
        const double v = group.y / group.sum - centre.y;
        if (std::hypot(u, v) < kBeamRadius * frame.cols) continue;
        auto spot = std::make_unique<Reflex2d>(pattern, tilt, u, v);
        spot->setIntensity(group.sum);
        spot->setPeakHeight(group.peak);
        spot->setThreshold(group.threshold);
        spots.append(ReflexPtr(spot.release()));
    }
}

}  // namespace

ReflexVector* FindReflexes2d::findAllReflexes(const VoxMRCData* series) {
    if (!series || series->GetDimCount() != 3 || series->GetDataSize() == 0 ||
        series->GetStorageMethod() != Storage_BySlice) {
        VRKLogger::getInstance()->log("FindReflexes2d::findAllReflexes: there is no series.", VRK::Error);
        return nullptr;
    }
    const VRK::detail::SingleThreadedOpenCV singleThreaded;
    ReflexVectorPtr spots(new ReflexVector);
    const int count = static_cast<int>(series->GetDepth());
    setSteps(count, "Reflections in patterns");
    for (int pattern = 0; pattern < count; ++pattern) {
        updateStep(pattern);
        if (canceled()) {
            VRKLogger::getInstance()->log("FindReflexes2d::findAllReflexes() canceled ...");
            return nullptr;
        }
        const VRK::detail::Frame frame = VRK::detail::readOnly(
            series->GetChunkPointer(static_cast<unsigned>(pattern)), static_cast<int>(series->GetWidth()),
            static_cast<int>(series->GetHeight()));
        appendSpots(frame, pattern, series->m_Header.tilt(pattern), *spots);
    }
    return spots.release();
}
