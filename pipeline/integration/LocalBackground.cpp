#include "pipeline/integration/LocalBackground.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>

namespace vrk {
namespace {

constexpr double kHuber = 2.0;
/// Single electrons are no outliers where there are hardly any.
constexpr double kHuberCounts = 3.0;
constexpr double kOutlier = 3.0;  ///< in limits of Huber's function
constexpr int kRejections = 8;
/// Variance of a mean under these weights, over that of the plain mean.
constexpr double kInefficiency = 1.02;
/// A step below this share of the uncertainties is the last.
constexpr double kConverged = 0.03;
/// With fewer pixels per parameter a plane is guesswork.
constexpr int kPlanePixels = 30;
constexpr int kConstantPixels = 8;

/// Mean of Huber's function of (X - n) / sqrt(n) over the Poisson distribution of mean n, for n from
/// kTableStart on in steps of a factor.
constexpr double kTableStart = 0.01;
constexpr double kTableFactor = 1.1;
constexpr int kTableSize = 130;

/// Where Huber's function bends, in standard deviations, for a Poisson distribution.
double huberLimit(double mean) {
    return std::max(kHuber, kHuberCounts / std::sqrt(mean));
}

double meanHuber(double mean) {
    const double sigma = std::sqrt(mean);
    const double limit = huberLimit(mean);
    const int last = static_cast<int>(mean + 12 * sigma + 12);
    double sum = 0;
    double logTerm = -mean;
    for (int count = 0; count <= last; ++count) {
        if (count > 0) logTerm += std::log(mean / count);
        sum += std::exp(logTerm) * std::clamp((count - mean) / sigma, -limit, limit);
    }
    return sum;
}

const std::array<double, kTableSize>& huberTable() {
    static const std::array<double, kTableSize> table = [] {
        std::array<double, kTableSize> values{};
        double mean = kTableStart;
        for (double& value : values) {
            value = meanHuber(mean);
            mean *= kTableFactor;
        }
        return values;
    }();
    return table;
}

}  // namespace

LocalBackground::LocalBackground(const NoiseModel& noise) : m_noise(noise) {}

/// What Huber's function of a background pixel is on average, by its expected counts.
double LocalBackground::correction(double counts) const {
    const double signal = m_noise.gain * counts;
    const double variance = m_noise.variance(counts);
    const double mean = std::max(variance / (m_noise.gain * m_noise.gain), kTableStart);
    // Noise of other origin makes the distribution less skew.
    const double skew = std::min(std::pow(std::max(signal, 0.0) / variance, 1.5), 1.0);
    const double place = std::log(mean / kTableStart) / std::log(kTableFactor);
    const auto& table = huberTable();
    if (place >= kTableSize - 1) {
        const double end = kTableStart * std::pow(kTableFactor, kTableSize - 1);
        return skew * table.back() * std::sqrt(end / mean);
    }
    const auto index = static_cast<std::size_t>(place);
    const double part = place - static_cast<double>(index);
    return skew * (table[index] + part * (table[index + 1] - table[index]));
}

/// A first level that a third of bright pixels does not lift much.
double LocalBackground::start(const BackgroundPixels& pixels) const {
    constexpr std::size_t kSample = 31;
    std::array<float, kSample> sample{};
    const std::size_t used = std::min(pixels.size(), kSample);
    for (std::size_t i = 0; i < used; ++i) {
        const std::size_t at = i * pixels.size() / used;
        sample[i] = pixels.counts[at] - pixels.shape[at];
    }
    const auto middle = sample.begin() + static_cast<std::ptrdiff_t>(used / 2);
    std::nth_element(sample.begin(), middle, sample.begin() + static_cast<std::ptrdiff_t>(used));
    const double median = *middle;
    if (median > 4 * m_noise.gain) return median;
    // Where counts are few their median is 0 or 1.
    const double limit = median + 6 * std::sqrt(m_noise.variance(median)) + 3 * m_noise.gain;
    double sum = 0;
    double count = 0;
    for (std::size_t i = 0; i < pixels.size(); ++i)
        if (const float value = pixels.counts[i] - pixels.shape[i]; value <= limit) {
            sum += value;
            count += 1;
        }
    return count > 0 ? sum / count : median;
}

/// \param reject  whether outliers take no part
BackgroundModel LocalBackground::modelOf(const BackgroundPlane& plane, bool reject) const {
    const auto limit =
        static_cast<float>(huberLimit(m_noise.variance(plane.level) / (m_noise.gain * m_noise.gain)));
    const float farthest = static_cast<float>(kOutlier) * limit;
    return {static_cast<float>(plane.level),
            static_cast<float>(plane.slopeX),
            static_cast<float>(plane.slopeY),
            static_cast<float>(m_noise.gain),
            static_cast<float>(m_noise.floor),
            static_cast<float>(NoiseModel::kLeast * m_noise.gain),
            static_cast<float>(correction(plane.level)),
            limit,
            farthest,
            reject ? farthest : 1e30F};
}

BackgroundPlane LocalBackground::fit(const BackgroundPixels& pixels) const {
    BackgroundPlane plane;
    const std::size_t count = pixels.size();
    if (count < kConstantPixels) return plane;
    double meanX = 0, meanY = 0;
    float extent = 0;
    for (std::size_t i = 0; i < count; ++i) {
        meanX += pixels.dx[i];
        meanY += pixels.dy[i];
        extent = std::max(extent, std::abs(pixels.dx[i]) + std::abs(pixels.dy[i]));
    }
    // Pixels on one side of the spot tell little of the level under it once the slope is free.
    const double lopsided = std::hypot(meanX, meanY) / static_cast<double>(count);
    plane.tilted = count >= kPlanePixels && lopsided < 0.2 * extent;
    const double size = plane.tilted ? 3 : 1;

    plane.level = start(pixels);
    Eigen::Matrix3d inverse = Eigen::Matrix3d::Zero();
    for (int round = 0; round < kRejections; ++round) {
        const BackgroundSums now = BackgroundSums::of(pixels, modelOf(plane, round > 1));
        if (!(now.inside > 0)) return {};
        Eigen::Matrix3d normal;
        normal << now.w, now.wx, now.wy,  //
            now.wx, now.wxx, now.wxy,     //
            now.wy, now.wxy, now.wyy;
        if (plane.tilted)
            inverse = normal.inverse();
        else
            inverse(0, 0) = 1 / normal(0, 0);
        // Newton's method with the mean slope of Huber's function.
        const Eigen::Vector3d step = inverse * Eigen::Vector3d(now.pull, now.pullX, now.pullY) /
                                     std::max<double>(now.inside / now.used, 0.3);
        plane.level += step(0);
        plane.slopeX += step(1);
        plane.slopeY += step(2);
        plane.pixels = static_cast<int>(now.used);
        plane.scatter = now.squares / std::max(static_cast<double>(now.used) - size, 1.0);
        if (step.dot(normal * step) < kConverged * kConverged) break;
    }
    plane.levelVariance = kInefficiency * inverse(0, 0);
    return plane;
}

}  // namespace vrk
