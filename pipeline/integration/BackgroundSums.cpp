#include "pipeline/integration/BackgroundSums.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

namespace vrk {
namespace {

using Lanes = std::array<float, BackgroundSums::kLanes>;

struct LaneSums {
    Lanes pull{}, pullX{}, pullY{}, w{}, wx{}, wy{}, wxx{}, wxy{}, wyy{}, squares{}, inside{}, used{};
};

struct PixelColumns {
    const float* dx;
    const float* dy;
    const float* counts;
    const float* shape;
};

[[gnu::always_inline]] inline void addPixel(const PixelColumns& pixels, std::size_t i,
                                            const BackgroundModel& model, std::size_t lane, LaneSums& sums) {
    const float x = pixels.dx[i];
    const float y = pixels.dy[i];
    const float mean = model.level + model.slopeX * x + model.slopeY * y + pixels.shape[i];
    const float variance = std::max(model.gain * mean + model.floor, model.least);
    const float sharpness = 1 / std::sqrt(variance);
    const float relative = (pixels.counts[i] - mean) * sharpness;
    const float limited = std::min(std::max(relative, -model.limit), model.limit);
    const float part = relative > model.outlier ? 0.0F : 1.0F;
    const float pull = part * (limited - model.expected) * sharpness;
    const float weight = part * sharpness * sharpness;
    const float square = std::min(relative * relative, model.farthest * model.farthest);
    sums.pull[lane] += pull;
    sums.pullX[lane] += pull * x;
    sums.pullY[lane] += pull * y;
    sums.w[lane] += weight;
    sums.wx[lane] += weight * x;
    sums.wy[lane] += weight * y;
    sums.wxx[lane] += weight * x * x;
    sums.wxy[lane] += weight * x * y;
    sums.wyy[lane] += weight * y * y;
    sums.squares[lane] += part * square * variance;
    sums.inside[lane] += limited == relative ? part : 0.0F;
    sums.used[lane] += part;
}

#if defined(__x86_64__)
[[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#endif
LaneSums
sumPixels(PixelColumns pixels, std::size_t count, BackgroundModel model) {
    LaneSums sums;
    std::size_t first = 0;
    for (; first + BackgroundSums::kLanes <= count; first += BackgroundSums::kLanes)
        for (std::size_t lane = 0; lane < BackgroundSums::kLanes; ++lane)
            addPixel(pixels, first + lane, model, lane, sums);
    for (std::size_t lane = 0; first + lane < count; ++lane)
        addPixel(pixels, first + lane, model, lane, sums);
    return sums;
}

float sumOf(const Lanes& lanes) {
    return std::accumulate(lanes.begin(), lanes.end(), 0.0F);
}

}  // namespace

void BackgroundPixels::makeRoom() {
    constexpr std::size_t kUsual = 512;
    for (std::vector<float>* list : {&dx, &dy, &counts, &shape})
        list->resize(std::max(2 * m_size, kUsual));
}

BackgroundSums BackgroundSums::of(const BackgroundPixels& pixels, const BackgroundModel& model) {
    const LaneSums sums =
        sumPixels({pixels.dx.data(), pixels.dy.data(), pixels.counts.data(), pixels.shape.data()},
                  pixels.size(), model);
    return {sumOf(sums.pull), sumOf(sums.pullX),   sumOf(sums.pullY),  sumOf(sums.w),
            sumOf(sums.wx),   sumOf(sums.wy),      sumOf(sums.wxx),    sumOf(sums.wxy),
            sumOf(sums.wyy),  sumOf(sums.squares), sumOf(sums.inside), sumOf(sums.used)};
}

}  // namespace vrk
