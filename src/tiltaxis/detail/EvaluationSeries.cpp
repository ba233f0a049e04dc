#include "tiltaxis/detail/EvaluationSeries.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "foundation/detail/SingleThreadedOpenCV.h"
#include "processing/detail/Frame.h"
#include "tiltaxis/Reflex2d.h"

namespace VRK::detail {
namespace {

constexpr std::array<std::size_t, 5> kSpotCounts = {300, 600, 1200, 2400, 4800};
/// A reflection stands in the volume, which averages four samples, with about this share of the height of
/// its smoothed spot.
constexpr double kShareOfHeight = 0.35;
/// A voxel of noise alone reaches this share of the height that spots need over the noise once in 1e5.
constexpr double kShareOfThreshold = 0.65;
constexpr double kSmoothing = 0.7;
/// From where noise reaches a value in no voxel, which averages four pixels, to where it does in one of 1e3.
constexpr std::array<double, 6> kBrightShares = {1e-5, 1e-4, 1e-3, 3e-3, 1e-2, 3e-2};

cv::Mat_<float> smoothed(const VoxMRCData& series, unsigned pattern, double factor) {
    cv::Mat_<float> result;
    readOnly(series.GetChunkPointer(pattern), static_cast<int>(series.GetWidth()),
             static_cast<int>(series.GetHeight()))
        .convertTo(result, CV_32F, factor);
    cv::GaussianBlur(result, result, cv::Size(), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
    return result;
}

}  // namespace

std::vector<double> evaluationLevels(const ReflexVector& mergedSpots, double beamRadius) {
    std::vector<double> heights, thresholds;
    for (const Reflex* reflex : mergedSpots)
        if (const auto* spot = dynamic_cast<const Reflex2d*>(reflex)) {
            if (std::hypot(spot->getU(), spot->getV()) < beamRadius) continue;
            heights.push_back(spot->getPeakHeight());
            thresholds.push_back(spot->getThreshold());
        }
    if (heights.empty()) return {};
    std::sort(heights.begin(), heights.end(), std::greater<>());
    std::sort(thresholds.begin(), thresholds.end());
    const double lowest = kShareOfThreshold * thresholds[thresholds.size() * 9 / 10];
    std::vector<double> levels;
    for (const std::size_t count : kSpotCounts) {
        levels.push_back(std::max(kShareOfHeight * heights[std::min(count, heights.size()) - 1], lowest));
        if (count >= heights.size() || levels.back() == lowest) break;
    }
    return levels;
}

std::vector<double> brightPixelLevels(const VoxMRCData& series, double beamRadius) {
    const SingleThreadedOpenCV singleThreaded;
    const cv::Point2d centre =
        centreOf(static_cast<int>(series.GetWidth()), static_cast<int>(series.GetHeight()));
    std::vector<float> values;
    for (unsigned i = 0; i < series.GetDepth(); ++i) {
        const cv::Mat_<float> pattern = smoothed(series, i, 1.0);
        for (int row = 0; row < pattern.rows; ++row)
            for (int column = 0; column < pattern.cols; ++column)
                if (pattern(row, column) > 0.0F &&
                    std::hypot(column - centre.x, row - centre.y) >= beamRadius)
                    values.push_back(pattern(row, column));
    }
    std::vector<double> levels;
    for (const double share : kBrightShares) {
        const auto rank = static_cast<std::size_t>(share * series.GetDataSize());
        if (rank >= values.size()) break;
        const auto nth = values.begin() + static_cast<std::ptrdiff_t>(rank);
        std::nth_element(values.begin(), nth, values.end(), std::greater<>());
        levels.push_back(static_cast<double>(*nth));
    }
    return levels;
}

std::unique_ptr<VoxMRCData> scaledSeries(const VoxMRCData& series, double factor) {
    std::unique_ptr<VoxMRCData> result(
        VoxMRCData::Create3D(series.GetWidth(), series.GetHeight(), series.GetDepth()));
    if (!result) return nullptr;
    result->m_Header = series.m_Header;
    const SingleThreadedOpenCV singleThreaded;
    const int width = static_cast<int>(series.GetWidth());
    const int height = static_cast<int>(series.GetHeight());
    for (unsigned i = 0; i < series.GetDepth(); ++i)
        smoothed(series, i, factor).convertTo(Frame(height, width, result->GetChunkPointer(i)), CV_16S);
    return result;
}

}  // namespace VRK::detail
