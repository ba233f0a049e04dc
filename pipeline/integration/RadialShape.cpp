#include "pipeline/integration/RadialShape.h"

#include <algorithm>
#include <cmath>

#include "foundation/SharedLoop.h"

namespace vrk {
namespace {

constexpr std::size_t kSamples = 16;

/// The median of every ring of a frame; negative where a ring has too few pixels.
std::vector<double> ringMedians(const FrameStack& stack, std::size_t frame, const FramePose& pose,
                                std::size_t rings) {
    std::vector<std::vector<short>> values(rings);
    const short* pixel = stack.frames[frame].data();
    for (int y = 0; y < stack.height; ++y)
        for (int x = 0; x < stack.width; ++x, ++pixel) {
            const auto index = static_cast<std::size_t>(pixel - stack.frames[frame].data());
            if (*pixel == FrameStack::kMissing || (!stack.dead.empty() && stack.dead[index])) continue;
            const double u = x - pose.centreX, v = y - pose.centreY;
            const auto ring = static_cast<std::size_t>(std::sqrt(u * u + v * v) + 0.5);
            if (ring < rings) values[ring].push_back(*pixel);
        }
    std::vector<double> medians(rings, -1);
    for (std::size_t ring = 0; ring < rings; ++ring) {
        std::vector<short>& all = values[ring];
        if (all.size() < 4) continue;
        const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
        std::nth_element(all.begin(), middle, all.end());
        // Whole counts are coarse where they are few; the mean of what a median allows is not.
        const double limit = *middle + 4 * std::sqrt(std::max<double>(*middle, 1));
        double sum = 0;
        double count = 0;
        for (const short value : all)
            if (value <= limit) {
                sum += value;
                count += 1;
            }
        medians[ring] = sum / count;
    }
    return medians;
}

}  // namespace

RadialShape::RadialShape(const FrameStack& stack, std::span<const FramePose> poses) {
    const auto rings = static_cast<std::size_t>(std::hypot(stack.width, stack.height)) + 2;
    std::vector<double> sum(rings, 0), weight(rings, 0);
    const std::size_t step = std::max<std::size_t>(1, stack.frames.size() / kSamples);
    std::vector<std::vector<double>> samples((stack.frames.size() - step / 2 + step - 1) / step);
    VRK::shareItems(samples.size(), [&](std::size_t i, std::size_t) {
        const std::size_t f = step / 2 + i * step;
        samples[i] = ringMedians(stack, f, poses[f], rings);
    });
    for (const std::vector<double>& medians : samples)
        for (std::size_t ring = 0; ring < rings; ++ring)
            if (medians[ring] >= 0) {
                sum[ring] += medians[ring];
                weight[ring] += 1;
            }
    double last = 0;
    std::vector<double> profile(rings, 0);
    for (std::size_t ring = 0; ring < rings; ++ring)
        profile[ring] = last = weight[ring] > 0 ? sum[ring] / weight[ring] : last;
    m_outside = static_cast<float>(last);
    m_bySquare.resize((rings - 1) * (rings - 1));
    for (std::size_t square = 0; square < m_bySquare.size(); ++square) {
        const double distance = std::sqrt(static_cast<double>(square) + 0.5);
        const auto ring = static_cast<std::size_t>(distance);
        const double part = distance - static_cast<double>(ring);
        m_bySquare[square] = static_cast<float>(profile[ring] * (1 - part) + profile[ring + 1] * part);
    }
}

double RadialShape::radiusAbove(double counts) const {
    for (std::size_t square = m_bySquare.size(); square-- > 0;)
        if (m_bySquare[square] > counts) return std::sqrt(static_cast<double>(square));
    return 0;
}

}  // namespace vrk
