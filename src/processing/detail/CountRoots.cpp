#include "processing/detail/CountRoots.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <opencv2/core/hal/intrin.hpp>

#include "foundation/detail/Median.h"
#include "processing/detail/OppositePixels.h"

namespace VRK::detail {
namespace {

using Place = std::vector<RootAround>::const_iterator;

double medianRoot(Place begin, Place end) {
    std::vector<float> roots;
    roots.reserve(static_cast<std::size_t>(end - begin));
    std::transform(begin, end, std::back_inserter(roots), [](const RootAround& pixel) { return pixel.root; });
    return double{medianOf(roots)};
}

}  // namespace

void rootsOf(const short* counts, std::size_t n, float* roots) {
    const float least = std::sqrt(kRootOffset);
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const cv::v_float32x4 count = cv::v_cvt_f32(cv::v_load_expand(counts + i));
        const cv::v_float32x4 shifted = cv::v_max(count, cv::v_setzero_f32()) + cv::v_setall_f32(kRootOffset);
        cv::v_store(roots + i, cv::v_sqrt(shifted) - cv::v_setall_f32(least));
    }
    for (; i < n; ++i)
        roots[i] = std::sqrt(std::max(static_cast<float>(counts[i]), 0.0F) + kRootOffset) - least;
}

double riseAmong(std::vector<RootAround>& pixels) {
    constexpr std::size_t kFewest = 54;
    if (pixels.size() < kFewest) return 0;
    const auto nearer = [](const RootAround& a, const RootAround& b) { return a.distance < b.distance; };
    const auto ninth = pixels.begin() + static_cast<std::ptrdiff_t>(pixels.size() / 9);
    const auto half = pixels.begin() + static_cast<std::ptrdiff_t>(pixels.size() / 2);
    // Pixels at one distance, some of which count and some not, are told by where they come in the order.
    std::vector<RootAround> asTheyCame = pixels;
    std::nth_element(pixels.begin(), half, pixels.end(), nearer);
    std::nth_element(pixels.begin(), ninth, half, nearer);
    const auto isLike = [](const RootAround& limit) {
        return [&limit](const RootAround& pixel) { return pixel.distance == limit.distance; };
    };
    if (std::any_of(pixels.begin(), half, isLike(*half)) ||
        std::any_of(pixels.begin(), ninth, isLike(*ninth))) {
        pixels.swap(asTheyCame);
        std::sort(pixels.begin(), pixels.end(), nearer);
    }
    const auto divided = [&pixels](std::size_t part) {
        return pixels.cbegin() + static_cast<std::ptrdiff_t>(pixels.size() / part);
    };
    return medianRoot(pixels.cbegin(), divided(9)) - medianRoot(divided(2), pixels.cend());
}

}  // namespace VRK::detail
