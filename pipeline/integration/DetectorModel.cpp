#include "pipeline/integration/DetectorModel.h"

#include <Eigen/Core>
#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "foundation/SharedLoop.h"
#include "pipeline/base/Median.h"

namespace vrk {
namespace {

constexpr std::size_t kSampledFrames = 6;
constexpr int kBlock = 16;
constexpr std::size_t kBins = 12;
constexpr double kLeastGain = 0.01;
/// A pixel without counts is dead when this many were expected in all frames together.
constexpr double kExpectedCounts = 20;
constexpr std::size_t kFramesForDead = 5;

struct BlockStatistics {
    double mean = 0;
    double variance = 0;
};

/// Mean and variance about a plane, outliers cut; a variance of 0 where too little is left.
BlockStatistics statisticsOf(const FrameStack& stack, const short* frame, int left, int top) {
    constexpr int kRounds = 3;
    constexpr double kLimit = 3.5;
    Eigen::Vector3d plane = Eigen::Vector3d::Zero();
    double variance = std::numeric_limits<double>::infinity();
    for (int round = 0; round < kRounds; ++round) {
        Eigen::Matrix3d normal = Eigen::Matrix3d::Zero();
        Eigen::Vector3d right = Eigen::Vector3d::Zero();
        double squares = 0;
        const double limit = kLimit * kLimit * variance;
        for (int j = 0; j < kBlock; ++j) {
            const std::size_t row =
                static_cast<std::size_t>(top + j) * static_cast<std::size_t>(stack.width) +
                static_cast<std::size_t>(left);
            for (int i = 0; i < kBlock; ++i) {
                const std::size_t at = row + static_cast<std::size_t>(i);
                if (frame[at] == FrameStack::kMissing || (!stack.dead.empty() && stack.dead[at] != 0))
                    continue;
                const Eigen::Vector3d basis(1, i - 0.5 * (kBlock - 1), j - 0.5 * (kBlock - 1));
                const double deviation = frame[at] - plane.dot(basis);
                if (deviation * deviation > limit) continue;
                normal += basis * basis.transpose();
                right += deviation * basis;
                squares += deviation * deviation;
            }
        }
        const double used = normal(0, 0);
        if (used < 0.5 * kBlock * kBlock) return {};
        const Eigen::Vector3d step = normal.inverse() * right;
        plane += step;
        variance = (squares - step.dot(right)) / (used - 3);
    }
    return {plane(0), variance};
}

}  // namespace

std::vector<short> highestCounts(std::span<const std::span<const short>> frames) {
    std::vector<short> highest(frames.size(), std::numeric_limits<short>::min());
    VRK::shareItems(frames.size(), [&](std::size_t f, std::size_t) {
        short most = highest[f];
        for (const short value : frames[f])
            most = std::max(most, value);
        highest[f] = most;
    });
    return highest;
}

int saturationOf(const FrameStack& stack) {
    if (stack.frames.empty()) return 0;
    const std::vector<short> highestOf = highestCounts(stack.frames);
    const short highest = std::max<short>(*std::max_element(highestOf.begin(), highestOf.end()), 0);
    const auto near = static_cast<short>(std::ceil(0.97 * highest));
    struct Counted {
        std::uint32_t at = 0, near = 0;
    };
    std::vector<Counted> counted(highestOf.size());
    VRK::shareItems(highestOf.size(), [&](std::size_t f, std::size_t) {
        if (highestOf[f] < near) return;
        Counted frame;
        for (const short value : stack.frames[f]) {
            frame.at += value == highest ? 1U : 0U;
            frame.near += value >= near ? 1U : 0U;
        }
        counted[f] = frame;
    });
    std::size_t at = 0, below = 0;
    for (const Counted& frame : counted) {
        at += frame.at;
        below += frame.near - frame.at;
    }
    return highest > 50 && at > 10 + 3 * below ? highest : 0;
}

std::vector<std::uint8_t> deadPixels(const FrameStack& stack, std::span<const FramePose> poses,
                                     const RadialShape& shape) {
    if (stack.frames.size() < kFramesForDead) return {};
    std::vector<short> lowest(stack.frames[0].begin(), stack.frames[0].end());
    std::vector<short> highest = lowest;
    const auto width = static_cast<std::size_t>(stack.width);
    VRK::shareItems(static_cast<std::size_t>(stack.height), [&](std::size_t row, std::size_t) {
        for (const std::span<const short> frame : stack.frames)
            for (std::size_t i = row * width; i < (row + 1) * width; ++i) {
                lowest[i] = std::min(lowest[i], frame[i]);
                highest[i] = std::max(highest[i], frame[i]);
            }
    });
    const FramePose& pose = poses[poses.size() / 2];
    std::vector<std::uint8_t> dead(stack.pixels(), 0);
    bool any = false;
    std::size_t i = 0;
    for (int y = 0; y < stack.height; ++y)
        for (int x = 0; x < stack.width; ++x, ++i) {
            if (lowest[i] != highest[i]) continue;
            const auto dx = static_cast<float>(x - pose.centreX);
            const auto dy = static_cast<float>(y - pose.centreY);
            const double expected = shape.at(dx * dx + dy * dy) * static_cast<double>(stack.frames.size());
            if (expected < kExpectedCounts) continue;
            dead[i] = 1;
            any = true;
        }
    if (!any) dead.clear();
    return dead;
}

double roughGain(const FrameStack& stack) {
    const std::size_t step = std::max<std::size_t>(1, stack.frames.size() / kSampledFrames);
    std::vector<std::vector<double>> samples((stack.frames.size() - step / 2 + step - 1) / step);
    VRK::shareItems(samples.size(), [&](std::size_t i, std::size_t) {
        const std::size_t f = step / 2 + i * step;
        for (int top = 0; top + kBlock <= stack.height; top += 2 * kBlock)
            for (int left = 0; left + kBlock <= stack.width; left += 2 * kBlock) {
                const BlockStatistics block = statisticsOf(stack, stack.frames[f].data(), left, top);
                if (block.variance > 0 && block.mean > 0) samples[i].push_back(block.variance / block.mean);
            }
    });
    std::vector<double> ratios;
    for (const std::vector<double>& sample : samples)
        ratios.insert(ratios.end(), sample.begin(), sample.end());
    const double gain = ratios.empty() ? 1 : medianOf(ratios);
    return std::isfinite(gain) && gain > kLeastGain ? gain : kLeastGain;
}

NoiseModel noiseOfRings(std::span<const MeasuredSpot> measured, const NoiseModel& start) {
    std::vector<BlockStatistics> rings;
    for (const MeasuredSpot& spot : measured)
        if (spot.usable() && spot.background > 0) rings.push_back({spot.background, spot.scatter});
    if (rings.size() < 4 * kBins) return start;
    std::sort(rings.begin(), rings.end(),
              [](const BlockStatistics& a, const BlockStatistics& b) { return a.mean < b.mean; });
    Eigen::Matrix2d normal = Eigen::Matrix2d::Zero();
    Eigen::Vector2d right = Eigen::Vector2d::Zero();
    for (std::size_t bin = 0; bin < kBins; ++bin) {
        std::vector<double> means, variances;
        for (std::size_t n = rings.size() * bin / kBins; n < rings.size() * (bin + 1) / kBins; ++n) {
            means.push_back(rings[n].mean);
            variances.push_back(rings[n].variance);
        }
        const double variance = std::max(medianOf(variances), 1e-6);
        const Eigen::Vector2d basis(medianOf(means) / variance, 1 / variance);
        normal += static_cast<double>(means.size()) * basis * basis.transpose();
        right += static_cast<double>(means.size()) * basis;
    }
    NoiseModel noise;
    noise.gain = std::max(right(0) / normal(0, 0), kLeastGain);
    const Eigen::Vector2d line = normal.inverse() * right;
    // A floor counts when it is a quarter of the variance of the darkest background.
    const double darkest = noise.gain * rings[rings.size() / (2 * kBins)].mean;
    if (line.allFinite() && line(0) > kLeastGain && std::abs(line(1)) > 0.25 * darkest)
        noise = {line(0), line(1)};
    return noise;
}

}  // namespace vrk
