#include "processing/detail/PowderRings.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "processing/detail/InversionSums.h"

namespace VRK::detail {
namespace {

/// Rings that are fainter do not look like the edge of a shadow.
constexpr float kBrightRing = 1.25F;
/// What rises above its surroundings by less may be noise, in deviations of a pixel of the mean.
constexpr double kSignificantRise = 8.0;
/// Width of the widest group of rings that overlap, as a share of the frame's.
constexpr int kWidestGroup = 12;

/// The place about which all is most symmetric.
cv::Point2d symmetryCentre(const SeriesMean& mean) {
    constexpr int kReducedSize = 128;
    const int step = std::max(1, std::min(mean.width, mean.height) / kReducedSize);
    const cv::Mat_<float> values(mean.height, mean.width, const_cast<float*>(mean.values.data()));
    cv::Mat_<float> reduced;
    cv::resize(values, reduced, {mean.width / step, mean.height / step}, 0, 0, cv::INTER_AREA);
    cv::sqrt(reduced, reduced);
    cv::subtract(reduced, cv::mean(reduced), reduced);
    const cv::Mat_<float> sums = inversionSums(reduced);
    cv::Point best;
    cv::minMaxLoc(sums, nullptr, nullptr, nullptr, &best);
    const cv::Point2d place = inversionCentre(best, sums.size());
    return {(place.x + 0.5) * step - 0.5, (place.y + 0.5) * step - 0.5};
}

/// Number of the ring that a pixel lies in; the innermost is never empty.
std::size_t ringOf(int x, int y, cv::Point2d centre) {
    return static_cast<std::size_t>(std::hypot(x - centre.x, y - centre.y));
}

/// What most of a ring's pixels are above and below of. A shadow takes only part of a ring.
struct RingLevels {
    std::vector<float> low, high;
};

RingLevels levelsOf(const SeriesMean& mean, cv::Point2d centre) {
    std::vector<std::vector<float>> rings(static_cast<std::size_t>(std::hypot(mean.width, mean.height)) + 2);
    for (int y = 0; y < mean.height; ++y)
        for (int x = 0; x < mean.width; ++x)
            rings[ringOf(x, y, centre)].push_back(
                mean.values[static_cast<std::size_t>(y) * static_cast<std::size_t>(mean.width) +
                            static_cast<std::size_t>(x)]);
    while (rings.back().empty())
        rings.pop_back();
    RingLevels levels;
    for (std::vector<float>& ring : rings) {
        const auto fifth = static_cast<std::ptrdiff_t>(ring.size() / 5);
        std::nth_element(ring.begin(), ring.begin() + fifth, ring.end());
        levels.low.push_back(ring[static_cast<std::size_t>(fifth)]);
        std::nth_element(ring.begin(), ring.end() - 1 - fifth, ring.end());
        levels.high.push_back(*(ring.end() - 1 - fifth));
    }
    return levels;
}

}  // namespace

PowderRings::PowderRings(const SeriesMean& mean) : m_centre(symmetryCentre(mean)) {
    const RingLevels rings = levelsOf(mean, m_centre);
    const auto count = static_cast<std::ptrdiff_t>(rings.high.size());
    const std::ptrdiff_t reach = std::min(mean.width, mean.height) / kWidestGroup;
    std::vector<float> levels(rings.high.size(), std::numeric_limits<float>::infinity());
    bool any = false;
    for (std::ptrdiff_t ring = 0; ring < count; ++ring) {
        const auto here = rings.high.begin() + ring;
        const float inside = *std::min_element(here - std::min(reach, ring), here + 1);
        const float outside = *std::min_element(here, here + std::min(reach + 1, count - ring));
        const float level = rings.low[static_cast<std::size_t>(ring)];
        // Beyond the edge of a stop it stays brighter than within.
        if (outside > inside || level <= kBrightRing * inside) continue;
        const double rise = 2 * (std::sqrt(level * mean.counts) - std::sqrt(inside * mean.counts));
        if (rise < kSignificantRise) continue;
        levels[static_cast<std::size_t>(ring)] = inside;
        any = true;
    }
    if (any) m_levels = std::move(levels);
}

void PowderRings::removeFrom(SeriesMean& mean) const {
    if (empty()) return;
    std::size_t i = 0;
    for (int y = 0; y < mean.height; ++y)
        for (int x = 0; x < mean.width; ++x, ++i)
            mean.values[i] = std::min(mean.values[i], m_levels[ringOf(x, y, m_centre)]);
}

}  // namespace VRK::detail
