#include "tiltaxis/EvaluationSeriesInternal.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "processing/FrameInternal.h"
#include "processing/SingleThreadedOpenCVInternal.h"
#include "tiltaxis/Reflex2d.h"

namespace VRK::detail {
namespace {

constexpr std::size_t kWantedReflexes = 1000;
/// A reflection stands in the volume, which averages four samples, with about this share of the height of
/// its smoothed spot.
constexpr double kShareOfHeight = 0.35;
/// The same for the height that spots need over the noise.
constexpr double kShareOfThreshold = 0.75;
constexpr double kSmoothing = 0.7;

}  // namespace

double evaluationLevel(const ReflexVector& mergedSpots) {
    std::vector<double> heights, thresholds;
    for (const Reflex* reflex : mergedSpots)
        if (const auto* spot = dynamic_cast<const Reflex2d*>(reflex)) {
            heights.push_back(spot->getPeakHeight());
            thresholds.push_back(spot->getThreshold());
        }
    if (heights.empty()) return 0.0;
    const auto wanted =
        heights.begin() + static_cast<std::ptrdiff_t>(std::min(kWantedReflexes, heights.size()) - 1);
    std::nth_element(heights.begin(), wanted, heights.end(), std::greater<>());
    const auto high = thresholds.begin() + static_cast<std::ptrdiff_t>(thresholds.size() * 9 / 10);
    std::nth_element(thresholds.begin(), high, thresholds.end());
    return std::max(kShareOfHeight * *wanted, kShareOfThreshold * *high);
}

std::unique_ptr<VoxMRCData> scaledSeries(const VoxMRCData& series, double factor) {
    std::unique_ptr<VoxMRCData> result(
        VoxMRCData::Create3D(series.GetWidth(), series.GetHeight(), series.GetDepth()));
    if (!result) return nullptr;
    result->m_Header = series.m_Header;
    const SingleThreadedOpenCV singleThreaded;
    const int width = static_cast<int>(series.GetWidth());
    const int height = static_cast<int>(series.GetHeight());
    cv::Mat_<float> pattern;
    for (unsigned i = 0; i < series.GetDepth(); ++i) {
        readOnly(series.GetChunkPointer(i), width, height).convertTo(pattern, CV_32F, factor);
        cv::GaussianBlur(pattern, pattern, cv::Size(), kSmoothing, kSmoothing, cv::BORDER_REPLICATE);
        pattern.convertTo(Frame(height, width, result->GetChunkPointer(i)), CV_16S);
    }
    return result;
}

}  // namespace VRK::detail
